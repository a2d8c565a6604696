// A hash table with blocks of its own, for tests of the core without the layers above.
#pragma once

#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "hash/concurrent_table.h"
#include "hash/traits.h"

namespace KavoTest {

using Table = Qen::Hashtable<long, Qen::HashValue, Qen::KTraits, Qen::VTraits>;
using Core = Table::Core;
using Walk = Qen::ConcurrentTable<long, Qen::HashValue, Qen::KTraits, Qen::VTraits>::iterator;

struct Offered {
  int status = -100;
  unsigned char* block = nullptr;
};

// Blocks of 8 bytes.
class TestBlocks {
 public:
  const Qen::BlockDirectory& Directory() const { return m_directory; }

  TestBlocks() : m_memory(static_cast<unsigned char*>(std::calloc(MOST, SIZE)), &std::free) {
    m_directory.SetStock(m_memory.get(), MOST);
  }

  // Fills a record with a new block, and gives its address.
  unsigned char* AttachNew(Qen::HashValue& record) {
    const Qen::BlockNumber number = m_used++;
    if (number >= MOST) {
      throw std::logic_error("more blocks than tests use");
    }
    record.Attach(number);
    return m_memory.get() + number * SIZE;
  }

 private:
  static constexpr std::size_t SIZE = 8;
  static constexpr Qen::BlockNumber MOST = 1U << 22;  // what is not touched costs nothing

  std::unique_ptr<unsigned char, decltype(&std::free)> m_memory;
  Qen::BlockDirectory m_directory{SIZE, 1};
  std::atomic<Qen::BlockNumber> m_used{0};
};

// The blocks first: they are there when the table is made.
class TestTable : public TestBlocks, public Table {
 public:
  explicit TestTable(unsigned long long cells = 8) : Table(cells, Directory()) {}

  // As a table adapter offers a key.
  Offered Offer(long key) {
    Offered offered;
    offered.status = InsertOrFind(
        key,
        [&](Qen::HashValue& record) {
          offered.block = AttachNew(record);
          return 0;
        },
        [&](unsigned char& block) {
          offered.block = &block;
          return 0;
        });
    return offered;
  }

  // Finds a key in the current generation or stores it there, without any growth, whatever the threshold says. The
  // entry has the key's block, if that could be done, and the record if this call filled it.
  Core::Entry Claim(long key) {
    Core::Entry entry;
    Core* core = nullptr;
    CurrentGeneration()->InsertOrFindProcess(key, entry, core);
    if (entry.record != nullptr) {
      entry.block = AttachNew(*entry.record);
    }
    return entry;
  }
  unsigned char* Store(long key) { return Claim(key).block; }

  // Moves a generation as an insert does that meets it full.
  int MoveGeneration(Core* core) {
    m_root.store(&m_curHashCore);
    return BeginWholeTableMigration(core);
  }
  int Grow() { return MoveGeneration(CurrentGeneration()); }

  int Build(Core* old, Core*& next) {
    m_root.store(&m_curHashCore);
    return MakeNewTable(old, next);
  }

  void MoveOne(Core* core, unsigned long long bucket, Core* destination) {
    MovedCount moved{core};
    static_cast<void>(MoveBucket(core, bucket, destination, moved));
  }

  unsigned char* BlockOf(long key) const { return Find(key); }

  unsigned long long BackstopCompletions() const { return m_backstopCompletions.load(); }
};

}  // namespace KavoTest
