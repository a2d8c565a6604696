// A hash table with blocks of its own, for tests of the core without the layers above.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <mutex>

#include "hash/concurrent_table.h"
#include "hash/traits.h"

namespace KavoTest {

using Table = Qen::Hashtable<long, Qen::HashValue, Qen::KTraits, Qen::VTraits>;
using Core = Table::Core;

struct Offered {
  int status = -100;
  unsigned char* block = nullptr;
};

class TestTable : public Table {
 public:
  explicit TestTable(unsigned long long cells = 8) : Table(cells) {}

  unsigned char* NewBlock() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_blocks.emplace_back().bytes;
  }

  // As a table adapter offers a key.
  Offered Offer(long key) {
    Offered offered;
    offered.status = InsertOrFind(
        key,
        [&](Qen::HashValue& record) {
          record.Attach(offered.block = NewBlock());
          return 0;
        },
        [&](unsigned char& block) {
          offered.block = &block;
          return 0;
        });
    return offered;
  }

  // Stores a key in the current generation without any growth, whatever its threshold says. Its block, or null when it
  // cannot.
  unsigned char* Store(long key) {
    Core::Entry entry;
    Core* core = nullptr;
    CurrentGeneration()->InsertOrFindProcess(key, entry, core);
    if (entry.record == nullptr) {
      return entry.block;
    }
    unsigned char* const block = NewBlock();
    entry.record->Attach(block);
    return block;
  }

  // Moves the current generation as an insert does that meets it full.
  int Grow() {
    m_root.store(&m_curHashCore);
    return BeginWholeTableMigration(CurrentGeneration());
  }

  int Build(Core* old, Core*& next) {
    m_root.store(&m_curHashCore);
    return MakeNewTable(old, next);
  }

  unsigned char* BlockOf(long key) const { return Find(key); }

  // For tests that look into generations after they were left.
  void KeepLeftCells() { BeginWalk(); }

  unsigned long long BackstopCompletions() const { return m_backstopCompletions.load(); }

 private:
  struct Block {
    alignas(8) unsigned char bytes[8] = {};
  };

  std::mutex m_mutex;
  std::deque<Block> m_blocks;
};

// Every cell's flags have MOVED, which is what makes a generation one that may be left.
inline void ExpectAllMoved(const Core& core) {
  for (unsigned long long i = 0; i < core.TableSize(); ++i) {
    ASSERT_TRUE(core.CellAt(i).flags.Load() & Qen::HCore::BUCKET_MOVED) << "bucket " << i;
  }
}

}  // namespace KavoTest
