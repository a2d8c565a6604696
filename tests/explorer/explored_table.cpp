#include "explorer/explored_table.h"

#include <cstddef>
#include <cstdint>

#include "hash/hcore.h"

namespace KavoExplorer {
namespace {

using Qen::HCore::BUCKET_MOVED;
using Qen::HCore::BUCKET_MOVING;
using Qen::HCore::MAP_BUILDING;

std::string Bucket(unsigned generation, unsigned long long bucket) {
  return ", generation " + std::to_string(generation) + " bucket " + std::to_string(bucket);
}

}  // namespace

ExploredTable::Core* ExploredTable::Generation(unsigned index) const {
  Core* core = FirstGeneration();
  for (; index > 0; --index) {
    core = core->Next();
  }
  return core;
}

int ExploredTable::OfferFailing(long key) {
  return InsertOrFind(
      key, [](Qen::HashValue&) { return static_cast<int>(KAVO_NO_MEMORY); }, [](unsigned char&) { return 0; });
}

std::multiset<long> ExploredTable::WalkedKeys() {
  std::multiset<long> keys;
  for (KavoTest::Walk walk(*this); !walk.AtEnd(); walk.Next()) {
    keys.insert(walk.EntryKey());
  }
  return keys;
}

std::string ExploredTable::Leftovers() const {
  unsigned index = 0;
  for (const Core* core = FirstGeneration(); core != nullptr; core = core->Next(), ++index) {
    if (core->Next() != nullptr && core->Next()->TableSize() != 2 * core->TableSize()) {
      return "a generation that was built twice";
    }
    if (core->IsDeleted()) {
      continue;  // its cells may be zero
    }
    for (unsigned long long i = 0; i < core->TableSize(); ++i) {
      const Core::Cell& cell = core->CellAt(i);
      const unsigned flags = cell.flags.Load();
      if ((flags & (BUCKET_MOVING | BUCKET_MOVED)) == BUCKET_MOVING || (flags & MAP_BUILDING) != 0) {
        return "flags " + std::to_string(flags) + Bucket(index, i);
      }
      if (cell.LoadKey() != Qen::HCore::EMPTY_KEY && cell.value.State() == Qen::RecordState::FILLING) {
        return "a record that nobody fills" + Bucket(index, i);
      }
    }
  }
  return {};
}

std::string ExploredTable::NameOf(const void* where) const {
  static constexpr const char* FIELDS[] = {"flags", "move claim", "first link", "next link", "record", "key"};
  const auto bytesFrom = [where](const void* base) {
    return reinterpret_cast<std::uintptr_t>(where) - reinterpret_cast<std::uintptr_t>(base);
  };
  std::string name = "generation 0";
  for (const Core* core = FirstGeneration(); core != nullptr; core = core->Next(), ++name.back()) {
    if (const std::size_t offset = bytesFrom(&core->CellAt(0)); offset < core->TableSize() * sizeof(Core::Cell)) {
      const std::size_t inCell = offset % sizeof(Core::Cell);
      return name + " cell " + std::to_string(offset / sizeof(Core::Cell)) + ' ' +
             FIELDS[inCell < 4 ? inCell : 3 + inCell / 4 - inCell / 8];
    }
    if (const std::size_t offset = bytesFrom(core); offset < sizeof(*core)) {
      return name + ", at byte " + std::to_string(offset);
    }
  }
  const std::size_t offset = bytesFrom(this);
  return offset < sizeof(*this) ? "table, at byte " + std::to_string(offset) : std::string();
}

}  // namespace KavoExplorer
