// The walk over a table: each entry once, whatever has become of the table's generations.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "hash/test_table.h"
#include "platform/log_sink.h"
#include "support/log_capture.h"
#include "support/parking.h"
#include "support/seed.h"

namespace KavoTest {
namespace {

std::vector<long> KeysOf(TestTable& table) {
  std::vector<long> keys;
  for (Walk walk(table); !walk.AtEnd(); walk.Next()) {
    keys.push_back(walk.EntryKey());
  }
  return keys;
}

// How often the cells and maps of a generation hold the key with a block.
unsigned CopiesIn(const Core& core, long key) {
  unsigned copies = 0;
  for (unsigned long long i = 0; i < core.TableSize(); ++i) {
    const Core::Cell& cell = core.CellAt(i);
    copies += cell.LoadKey() == key && core.BlockOf(cell.value) != nullptr;
    if (const Core::Map* const map = core.FindMap(i)) {
      const auto entry = map->entries.find(key);
      copies += entry != map->entries.end() && core.BlockOf(entry->second) != nullptr;
    }
  }
  return copies;
}

class Iterator : public ::testing::Test {
 protected:
  void Fill(std::initializer_list<long> keys) {
    for (const long key : keys) {
      m_blocks[key] = m_table.Store(key);
      ASSERT_NE(m_blocks[key], nullptr) << key;
    }
  }
  void Offer(long key) {
    const Offered offered = m_table.Offer(key);
    ASSERT_EQ(offered.status, Qen::ENTRY_INSERTED) << key;
    m_blocks[key] = offered.block;
  }

  TestTable m_table;
  Blocks m_blocks;
};

TEST_F(Iterator, AnEmptyTableIsAtItsEndAndStaysThere) {
  Walk walk(m_table);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(walk.AtEnd());
    EXPECT_EQ(walk.EntryKey(), Qen::HCore::EMPTY_KEY);
    EXPECT_EQ(walk.EntryBlock(), nullptr);
    walk.Next();
  }
  EXPECT_TRUE(Core::iterator().AtEnd());
}

TEST(IteratorOrder, CellsInOrderAndAMapBeforeTheKeyOfItsCell) {
  TestTable table(16);
  for (long key = 0; key < 16; ++key) {
    table.Store(key);
  }
  for (const long key : {53L, 21L, 37L}) {  // of bucket 5, where no cell is left
    ASSERT_NE(table.Store(key), nullptr);
  }
  EXPECT_EQ(KeysOf(table), (std::vector<long>{0, 1, 2, 3, 4, 21, 37, 53, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}));
}

class IteratorOverKeys : public ::testing::TestWithParam<const char*> {};

TEST_P(IteratorOverKeys, OfATableGrownManyTimesReportsEachEntryOnceAfterEveryInsert) {
  TestTable table;
  Blocks blocks;
  std::mt19937_64 random(20'240'608);
  for (long i = 0; i < 3000; ++i) {
    const std::string kind = GetParam();
    const long key = kind == "dense" ? i : kind == "random" ? static_cast<long>(random() >> 1) : (i << 32) + 5;
    blocks[key] = table.Offer(key).block;
    if (i < 100 || i % 500 == 0) {
      ASSERT_NO_FATAL_FAILURE(ExpectWalked(table, blocks));
    }
  }
  ExpectWalked(table, blocks);
  EXPECT_TRUE(table.FirstGeneration()->Next()->IsDeleted());
}

INSTANTIATE_TEST_SUITE_P(Kinds, IteratorOverKeys, ::testing::Values("dense", "random", "onebucket"),
                         [](const auto& param) { return std::string(param.param); });

TEST_F(Iterator, KeysWithoutABlockArePassedOver) {
  Fill({0, 8});
  LogCapture log(Qen::SetLogSink);
  const auto found = [](unsigned char&) { return 0; };
  m_table.InsertOrFind(
      3, [](Qen::HashValue&) { return KAVO_NO_MEMORY; }, found);
  Core::Entry filling;
  Core* core = nullptr;
  ASSERT_EQ(m_table.CurrentGeneration()->InsertOrFindProcess(16, filling, core), Qen::ENTRY_INSERTED);
  ASSERT_EQ(m_table.CurrentGeneration()->CellAt(3).value.State(), Qen::RecordState::VACANT);
  ExpectWalked(m_table, m_blocks);

  Fill({24, 32, 40, 48});  // no cell is left: the next two go to the map
  Fill({64});
  m_table.InsertOrFind(
      56, [](Qen::HashValue&) { return KAVO_NO_MEMORY; }, found);
  ASSERT_EQ(m_table.FirstGeneration()->FindMap(0)->entries.size(), 2U);
  ExpectWalked(m_table, m_blocks);
}

// A move is stopped by each allocation in turn; what it copied by then is in both generations. Thirty keys of bucket 0
// need maps in both, and take the home cell of bucket 5 in the second.
TEST(IteratorAfterFailure, AMoveStoppedHalfWayReportsNoEntryTwice) {
  unsigned stopped = 0;
  unsigned copied = 0;
  for (unsigned long long nth = 1; nth < 100; ++nth) {
    SCOPED_TRACE(nth);
    TestTable table;
    Blocks blocks;
    for (const long key : {5L, 13L}) {
      blocks[key] = table.Store(key);
    }
    for (long i = 0; i < 30; ++i) {
      blocks[i << 20] = table.Store(i << 20);
    }
    LogCapture log(Qen::SetLogSink);
    Qen::TestHooks::FailAllocation(nth);
    const int ret = table.Grow();
    Qen::TestHooks::FailAllocation(0);
    ExpectWalked(table, blocks);
    const Core* next = table.FirstGeneration()->Next();
    if (Qen::TestHooks::AllocationFailures() == 0) {
      EXPECT_EQ(ret, KAVO_SUCCESS);
      EXPECT_EQ(table.CurrentGeneration(), next);
      break;
    }
    EXPECT_NE(ret, KAVO_SUCCESS);
    EXPECT_EQ(table.CurrentGeneration(), table.FirstGeneration());
    if (next != nullptr) {
      ++stopped;
      for (const auto& [key, block] : blocks) {
        copied += CopiesIn(*next, key);
      }
    }
  }
  EXPECT_GT(stopped, 5U);
  EXPECT_GT(copied, 20U);
}

// A mover stands still before or behind each bucket. The fixtures' cells hold keys of other buckets, and maps.
class HalfMoved : public Iterator,
                  public ::testing::WithParamInterface<std::tuple<const char*, unsigned, std::vector<long>>> {};

TEST_P(HalfMoved, EachEntryIsReportedFromTheGenerationThatServesIt) {
  const auto& [point, bucket, keys] = GetParam();
  for (const long key : keys) {
    Fill({key});
  }
  Parking parked(point, bucket + 1);
  std::thread mover([&] { EXPECT_EQ(m_table.Grow(), KAVO_SUCCESS); });
  if (parked.WaitUntilParked()) {
    const Core& first = *m_table.FirstGeneration();
    for (unsigned i = 0; i < 8; ++i) {
      EXPECT_EQ((first.CellAt(i).flags.Load() & Qen::HCore::BUCKET_MOVED) != 0, i < bucket) << i;
    }
    ExpectWalked(m_table, m_blocks);
  }
  parked.Release();
  mover.join();
  ExpectWalked(m_table, m_blocks);
}

INSTANTIATE_TEST_SUITE_P(
    Points, HalfMoved,
    ::testing::Combine(::testing::Values("Mover.Marked", "Mover.Copied"), ::testing::Values(0U, 1U, 2U, 5U, 6U, 7U),
                       ::testing::Values(
                           // Chains that wind around the end and take the home cells of others.
                           std::vector<long>{6, 14, 22, 7, 15, 3, 1},
                           // All cells are bucket 0's; cell 1 holds 8 and the map of bucket 1, which moves later.
                           std::vector<long>{0, 8, 16, 24, 32, 40, 48, 56, 1, 9, 17},
                           // All cells are bucket 5's; cell 1 holds one of them and the map of bucket 1, which moves
                           // before.
                           std::vector<long>{5, 13, 21, 29, 37, 45, 53, 61, 1, 9})));

// The second generation fills, grows and is emptied while buckets of the first are still in place.
TEST_F(Iterator, AGenerationWithoutEntriesBetweenTwoThatHaveSomeIsPassedOver) {
  Fill({0, 4, 5, 6, 7});
  Parking marked("Mover.Marked", 5);  // buckets 0 to 3 have moved
  std::thread mover([&] { EXPECT_EQ(m_table.Grow(), KAVO_SUCCESS); });
  if (marked.WaitUntilParked()) {
    const Core* second = m_table.FirstGeneration()->Next();
    for (long i = 1; !second->IsEmptied() && i < 100; ++i) {
      Offer(i * 16);
      ExpectWalked(m_table, m_blocks);
    }
    EXPECT_TRUE(second->IsEmptied());
    EXPECT_EQ(m_table.CurrentGeneration(), m_table.FirstGeneration());
    EXPECT_NE(second->Next(), nullptr);
    ExpectWalked(m_table, m_blocks);
  }
  marked.Release();
  mover.join();
  ExpectWalked(m_table, m_blocks);
}

// Copies that a stopped move has left in the second generation must not be reported from the third either.
TEST_F(Iterator, CopiesLeftByAStoppedMoveAreNotReportedWhereverTheyMoveOn) {
  for (long i = 0; i < 30; ++i) {
    Fill({i << 20});
  }
  LogCapture log(Qen::SetLogSink);
  Qen::TestHooks::FailAllocation(5);
  EXPECT_NE(m_table.Grow(), KAVO_SUCCESS);
  Qen::TestHooks::FailAllocation(0);
  Core* const first = m_table.FirstGeneration();
  Core* const second = first->Next();
  ASSERT_NE(second, nullptr);
  ASSERT_EQ(first->CellAt(0).flags.Load() & Qen::HCore::BUCKET_MOVED, 0);
  // The stopped move's bucket in the second generation moves on to a third.
  Core* third = nullptr;
  ASSERT_EQ(m_table.MakeNewTable(second, third), KAVO_SUCCESS);
  ASSERT_EQ(m_table.MoveOldEntryToNewTable(second, third), KAVO_SUCCESS);
  unsigned copies = 0;
  for (const auto& [key, block] : m_blocks) {
    copies += CopiesIn(*third, key);
  }
  ASSERT_GT(copies, 0U);
  ExpectWalked(m_table, m_blocks);
  EXPECT_EQ(m_table.Grow(), KAVO_SUCCESS);
  ExpectWalked(m_table, m_blocks);
}

// The oldest generation is done with bucket 0; its move from the second to the third stops half way.
TEST_F(Iterator, CopiesOfAMoveStoppedInAMiddleGenerationAreNotReported) {
  Fill({0, 4, 5, 6, 7});
  LogCapture log(Qen::SetLogSink);
  Parking marked("Mover.Marked", 5);  // buckets 0 to 3 have moved
  std::thread mover([&] { EXPECT_EQ(m_table.Grow(), KAVO_SUCCESS); });
  if (marked.WaitUntilParked()) {
    for (long i = 1; i <= 60; ++i) {
      Fill({i << 20});
    }
    Core* const second = m_table.FirstGeneration()->Next();
    Core* third = nullptr;
    EXPECT_EQ(m_table.MakeNewTable(second, third), KAVO_SUCCESS);
    Qen::TestHooks::FailAllocation(4);
    EXPECT_NE(m_table.MoveOldEntryToNewTable(second, third), KAVO_SUCCESS);
    Qen::TestHooks::FailAllocation(0);
    EXPECT_EQ(CopiesIn(*third, 1L << 20), 1U);
    EXPECT_EQ(CopiesIn(*third, 60L << 20), 0U);
    ExpectWalked(m_table, m_blocks);
  }
  marked.Release();
  mover.join();
  ExpectWalked(m_table, m_blocks);
}

// What the host should not do, and what comes of it: nothing breaks, and nothing is missed that was there before.
TEST_F(Iterator, AMapThatGrowsUnderTheWalkIsWalkedInOrder) {
  for (long key = 0; key < 64; key += 8) {
    Fill({key});
  }
  Fill({80, 160});
  Walk walk(m_table);
  EXPECT_EQ(walk.EntryKey(), 80);
  for (long key = 72; key < 400; key += 8) {
    Fill({key});
  }
  for (long key = 88; key < 400; key += 8) {
    walk.Next();
    ASSERT_EQ(walk.EntryKey(), key);
  }
  walk.Next();
  EXPECT_EQ(walk.EntryKey(), 0);
}

TEST(IteratorBesideInserts, AWalkKeepsTheCellsItMayComeToUntilItEnds) {
  TestTable table;
  Blocks before;
  for (long key = 0; key < 8; ++key) {
    before[key] = table.Store(key);
  }
  const Core* const first = table.FirstGeneration();
  std::set<long> seen;
  {
    Walk walk(table);
    seen.insert(walk.EntryKey());
    for (long key = 8; key < 200; ++key) {
      table.Offer(key);
    }
    ASSERT_TRUE(first->IsDeleted());
    for (; !walk.AtEnd(); walk.Next()) {
      seen.insert(walk.EntryKey());
    }
    for (const auto& [key, block] : before) {
      EXPECT_EQ(seen.count(key), 1U) << key;
      EXPECT_EQ(first->FindValueProcess(key), block);
    }
  }
  for (const Core* core = first; core != table.CurrentGeneration(); core = core->Next()) {
    EXPECT_EQ(core->CellAt(3).LoadKey(), Qen::HCore::EMPTY_KEY) << core->TableSize();
  }
}

TEST(IteratorBesideInserts, MissesNoKeyThatWasThereBefore) {
  const unsigned long seed = TestSeed();
  std::mt19937_64 random(seed);
  for (int round = 0; round < 20; ++round) {
    TestTable table;
    std::set<long> before;
    const auto newKey = [&random] {
      const auto bits = static_cast<long>(random() >> 1);
      return bits % 4 == 0 ? bits : bits << 12;  // three of four in few buckets
    };
    for (int i = 0; i < 200; ++i) {
      const long key = newKey() & ~1L;
      table.Offer(key);
      before.insert(key);
    }
    std::vector<long> later;
    for (int i = 0; i < 2000; ++i) {
      later.push_back(newKey());
    }
    std::atomic<bool> done{false};
    std::thread inserter([&] {
      for (const long key : later) {
        table.Offer(key);
      }
      done = true;
    });
    do {
      const std::vector<long> keys = KeysOf(table);
      const std::set<long> seen(keys.begin(), keys.end());
      EXPECT_TRUE(std::includes(seen.begin(), seen.end(), before.begin(), before.end()));
    } while (!done);
    inserter.join();
  }
}

}  // namespace
}  // namespace KavoTest
