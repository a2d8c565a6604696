#include "explorer/explored_table.h"

#include <cstdint>
#include <string_view>
#include <utility>

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
  static constexpr std::string_view FIELDS[] = {"flags", "move claim", "first link", "next link", "record", "key"};
  const auto address = reinterpret_cast<std::uintptr_t>(where);
  const auto offsetIn = [address](const void* base, std::size_t bytes) {
    const auto begin = reinterpret_cast<std::uintptr_t>(base);
    return address >= begin && address < begin + bytes ? static_cast<long>(address - begin) : -1L;
  };
  unsigned index = 0;
  for (const Core* core = FirstGeneration(); core != nullptr; core = core->Next(), ++index) {
    const std::string generation = "generation " + std::to_string(index);
    for (unsigned long long i = 0; i < core->TableSize(); ++i) {
      const Core::Cell& cell = core->CellAt(i);
      if (const long offset = offsetIn(&cell, sizeof(cell)); offset >= 0) {
        const long field = offset < 4 ? offset : 3 + offset / 4 - offset / 8;
        return generation + " cell " + std::to_string(i) + ' ' + std::string(FIELDS[field]);
      }
      if (Core::Map* const map = core->FindMap(i)) {
        if (offsetIn(map, sizeof(*map)) >= 0) {
          return generation + " cell " + std::to_string(i) + " map";
        }
        for (const auto& [key, record] : map->entries) {
          if (&record == where) {
            return generation + " cell " + std::to_string(i) + " map record of key " + std::to_string(key);
          }
        }
      }
    }
    if (const long offset = offsetIn(core, sizeof(*core)); offset >= 0) {
      return generation + ", at byte " + std::to_string(offset);
    }
  }
  for (const auto& [member, name] : {std::pair<const void*, const char*>{&m_curHashCore, "current generation"},
                                     {&m_root, "root"},
                                     {&m_buildMutex, "build mutex"},
                                     {&m_deleteMutex, "delete mutex"},
                                     {&m_giveBackMutex, "give-back mutex"}}) {
    if (member == where) {
      return name;
    }
  }
  const long offset = offsetIn(this, sizeof(*this));
  return offset >= 0 ? "table, at byte " + std::to_string(offset) : std::string();
}

}  // namespace KavoExplorer
