// Growth on one thread: what moves, what stays, and what a failure leaves behind.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "hash/test_table.h"
#include "platform/log_sink.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"

namespace KavoTest {
namespace {

// Keys of one kind each: well spread, dense, and two that put many keys into one bucket, whatever a table's size.
std::vector<long> MakeKeys(const char* kind, long count) {
  std::vector<long> keys;
  std::mt19937_64 random(20'240'607);
  for (long i = 0; i < count; ++i) {
    switch (kind[0]) {
      case 'd':
        keys.push_back(i);
        break;
      case 'r':
        keys.push_back(static_cast<long>(random() >> 2));
        break;
      case 'e':
        keys.push_back((i << 32) + 5);
        break;
      default:
        keys.push_back(i << 20);
    }
  }
  return keys;
}

class GrowthOf : public ::testing::TestWithParam<const char*> {};

TEST_P(GrowthOf, EveryKeyKeepsItsBlockThroughAllGenerations) {
  TestTable table;
  table.KeepLeftCells();
  Blocks blocks;
  for (const long key : MakeKeys(GetParam(), 5000)) {
    const Offered offered = table.Offer(key);
    ASSERT_EQ(offered.status, Qen::ENTRY_INSERTED);
    blocks[key] = offered.block;
  }
  for (const auto& [key, block] : blocks) {
    ASSERT_EQ(table.BlockOf(key), block);
    ASSERT_EQ(table.Offer(key).block, block);
  }
  EXPECT_EQ(table.BlockOf(1L << 61), nullptr);
  unsigned long long cells = 8;
  const Core* core = table.FirstGeneration();
  for (; core != table.CurrentGeneration(); core = core->Next(), cells *= 2) {
    EXPECT_EQ(core->TableSize(), cells);
    EXPECT_TRUE(core->IsDeleted());
    EXPECT_EQ(core->GetRehashNum(), 0U);
    ExpectAllMoved(*core);
  }
  EXPECT_EQ(core->TableSize(), cells);
  EXPECT_EQ(core->Next(), nullptr);
  EXPECT_FALSE(core->IsDeleted());
  EXPECT_GE(cells, 2048U);
}

INSTANTIATE_TEST_SUITE_P(Keys, GrowthOf, ::testing::Values("dense", "random", "equal low bits", "multiples of 2^20"),
                         [](const auto& param) { return std::string(1, param.param[0]); });

TEST(Growth, TheInsertThatFillsAGenerationIsFoundInTheNextWithTheBlockItGotBefore) {
  TestTable table;
  table.KeepLeftCells();
  for (long key = 0; key < 64; key += 8) {
    table.Offer(key);
  }
  ASSERT_EQ(table.CurrentGeneration()->TableSize(), 8U);
  const Offered last = table.Offer(64);
  EXPECT_EQ(last.status, Qen::ENTRY_INSERTED);
  EXPECT_EQ(table.CurrentGeneration()->TableSize(), 16U);
  EXPECT_EQ(table.BlockOf(64), last.block);
  // Lookups that still stand in the generation left behind find the same block there.
  EXPECT_EQ(table.FirstGeneration()->FindValueProcess(64), last.block);
}

TEST(Growth, AnUnknownModeFailsOnlyInsertsThatStoredNothing) {
  TestTable table;
  table.SetRehashType(7);
  for (long key = 0; key < 64; key += 8) {
    table.Offer(key);
  }
  LogCapture log(Qen::SetLogSink);
  EXPECT_EQ(table.Offer(64).status, Qen::ENTRY_INSERTED);  // stored in the map before growth was due
  EXPECT_EQ(table.Offer(1).status, KAVO_FAILED);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"Invalid rehash type!", "MigrateHashCore failed!",
                                                      "Invalid rehash type!", "MigrateHashCore failed!"}));
}

// An 8-cell table whose bucket 0 holds every cell, so that one more key needs a map and then growth.
void FillAllCells(TestTable& table, Blocks& blocks) {
  for (long key = 0; key < 64; key += 8) {
    blocks[key] = table.Offer(key).block;
  }
}

void ExpectExactly(const TestTable& table, const Blocks& blocks) {
  for (const auto& [key, block] : blocks) {
    EXPECT_EQ(table.BlockOf(key), block) << key;
  }
}

struct Subject {
  TestTable table;
  Blocks blocks;
};

TEST(Growth, AFailedAllocationLeavesATableThatServesTheSameOfferAtOnce) {
  const long long heap = Qen::TestHooks::HeapBytesInUse();
  unsigned inserted = 0;
  unsigned failed = 0;
  const unsigned long long faults = FailEachAllocationOf(
      [] {
        auto subject = std::make_unique<Subject>();
        FillAllCells(subject->table, subject->blocks);
        return subject;
      },
      [&](Subject& subject, unsigned long long) {
        LogCapture log(Qen::SetLogSink);
        const Offered offered = subject.table.Offer(64);
        Qen::TestHooks::FailAllocation(0);
        if (offered.status == Qen::ENTRY_INSERTED) {  // a growth that fails does not undo the insert
          ++inserted;
          subject.blocks[64] = offered.block;
        } else {
          ++failed;
          EXPECT_EQ(offered.status, KAVO_FAILED);
          EXPECT_EQ(log.Messages(), (std::vector<std::string>{"Memory application failed.", "InsertOrFind failed!"}));
          EXPECT_EQ(subject.table.BlockOf(64), nullptr);
        }
        ExpectExactly(subject.table, subject.blocks);
        Qen::TestHooks::SetWaitLimit(1);  // nothing may be left to wait for
        log.Clear();
        for (const long key : {64L, 72L, 1L}) {
          const Offered again = subject.table.Offer(key);
          EXPECT_GE(again.status, 0);
          subject.blocks[key] = again.block;
        }
        Qen::TestHooks::SetWaitLimit(0);
        EXPECT_TRUE(log.Messages().empty());
        EXPECT_GE(subject.table.CurrentGeneration()->TableSize(), 16U);
        ExpectExactly(subject.table, subject.blocks);
      });
  EXPECT_EQ(faults, 5U);  // the map, its entry, the generation, its cells, its index of maps
  EXPECT_EQ(failed, 2U);
  EXPECT_EQ(inserted, 4U);
  EXPECT_EQ(Qen::TestHooks::HeapBytesInUse(), heap);
}

TEST(Growth, AnInsertThatStoredNothingFailsWithTheGrowthItNeeded) {
  TestTable table;
  Blocks blocks;
  FillAllCells(table, blocks);
  Qen::TestHooks::FailAllocation(3, true);  // the map and its entry may be had, a generation not
  blocks[64] = table.Offer(64).block;
  LogCapture log(Qen::SetLogSink);
  EXPECT_EQ(table.Offer(1).status, KAVO_NO_MEMORY);
  Qen::TestHooks::FailAllocation(0);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"make_unique failed, exception caught:std::bad_alloc",
                                                      "MakeNewTable failed! ret[-3]", "no enough mem!"}));
  ExpectExactly(table, blocks);
  EXPECT_EQ(table.Offer(1).status, Qen::ENTRY_INSERTED);
}

// Twenty keys of one bucket in 8 cells need a map in the next generation too, so a move can fail half way.
TEST(Growth, AMoveThatFailsHalfWayIsCompletedByTheNextOne) {
  const unsigned long long faults = FailEachAllocationOf(
      [] {
        auto subject = std::make_unique<Subject>();
        subject->table.KeepLeftCells();
        for (long i = 0; i < 30; ++i) {
          subject->blocks[i << 20] = subject->table.Store(i << 20);
        }
        return subject;
      },
      [](Subject& subject, unsigned long long nth) {
        LogCapture log(Qen::SetLogSink);
        const int ret = subject.table.Grow();
        const bool met = Qen::TestHooks::AllocationFailures() != 0;
        Qen::TestHooks::FailAllocation(0);
        EXPECT_EQ(ret == KAVO_SUCCESS, !met);
        if (nth > 3 && met) {
          EXPECT_EQ(log.Count("MoveOldEntryToNewTable failed!, ret[-1]"), 1U);
          EXPECT_NE(subject.table.FirstGeneration()->Next(), nullptr);
          EXPECT_EQ(subject.table.CurrentGeneration(), subject.table.FirstGeneration());
        }
        EXPECT_EQ(subject.table.FirstGeneration()->GetRehashNum(), 0U);
        ExpectExactly(subject.table, subject.blocks);
        Qen::TestHooks::SetWaitLimit(1);
        if (met) {
          EXPECT_EQ(subject.table.Offer(5 << 20).block, subject.blocks[5 << 20]);
          EXPECT_EQ(subject.table.Grow(), KAVO_SUCCESS);
        }
        Qen::TestHooks::SetWaitLimit(0);
        EXPECT_TRUE(subject.table.FirstGeneration()->IsDeleted());
        ExpectAllMoved(*subject.table.FirstGeneration());
        ExpectExactly(subject.table, subject.blocks);
      });
  EXPECT_GT(faults, 10U);
}

// A lock that reports an error, at each step of a growth. The insert that brought the growth about stands, and the next
// one completes it.
class LockErrorAt : public ::testing::TestWithParam<const char*> {
 protected:
  static inline std::string s_point;
  static void Throw(const char* point) {
    if (s_point == point) {
      s_point.clear();
      throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
    }
  }
};

TEST_P(LockErrorAt, TheInsertStandsAndTheNextOneCompletesTheGrowth) {
  TestTable table;
  Blocks blocks;
  FillAllCells(table, blocks);
  s_point = GetParam();
  LogCapture log(Qen::SetLogSink);
  Qen::TestHooks::SetPointHandler(&Throw);
  const Offered offered = table.Offer(64);
  Qen::TestHooks::SetPointHandler(nullptr);
  EXPECT_TRUE(s_point.empty()) << "the point was not reached";
  EXPECT_EQ(offered.status, Qen::ENTRY_INSERTED);
  EXPECT_EQ(log.Messages().back(), "MigrateHashCore failed!");
  blocks[64] = offered.block;
  ExpectExactly(table, blocks);
  EXPECT_EQ(table.FirstGeneration()->GetRehashNum(), 0U);
  Qen::TestHooks::SetWaitLimit(1);
  blocks[1] = table.Offer(1).block;
  blocks[2] = table.Offer(2).block;
  Qen::TestHooks::SetWaitLimit(0);
  EXPECT_EQ(table.CurrentGeneration()->TableSize(), 16U);
  EXPECT_TRUE(table.FirstGeneration()->IsDeleted());
  ExpectExactly(table, blocks);
}

INSTANTIATE_TEST_SUITE_P(Points, LockErrorAt, ::testing::Values("Chain.Building", "Mover.Marked", "Chain.Leaving"),
                         [](const auto& param) {
                           std::string name(param.param);
                           name.erase(name.find('.'), 1);
                           return name;
                         });

TEST(Growth, AKeyWhoseBlockCouldNotBeHadIsAbsentAndTheNextOfferCreatesIt) {
  TestTable table;
  const auto noBlock = [](Qen::HashValue&) { return KAVO_NO_MEMORY; };
  const auto throws = [](Qen::HashValue&) -> int { throw std::runtime_error("no block"); };
  const auto found = [](unsigned char&) { return 0; };
  LogCapture log(Qen::SetLogSink);
  EXPECT_EQ(table.InsertOrFind(3, noBlock, found), KAVO_NO_MEMORY);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"assignValue failed!"}));
  EXPECT_THROW(table.InsertOrFind(11, throws, found), std::runtime_error);
  EXPECT_EQ(table.Find(3), nullptr);
  EXPECT_EQ(table.Find(11), nullptr);
  Qen::TestHooks::SetWaitLimit(1);  // nobody owns the two keys, so nobody may wait for them
  const Offered three = table.Offer(3);
  EXPECT_EQ(three.status, Qen::ENTRY_INSERTED);
  EXPECT_EQ(table.Grow(), KAVO_SUCCESS);  // past 11, which has no block
  Qen::TestHooks::SetWaitLimit(0);
  EXPECT_EQ(table.BlockOf(3), three.block);
  EXPECT_EQ(table.Offer(11).status, Qen::ENTRY_INSERTED);
}

TEST(Growth, AFoundCallbackIsAskedOnceAndAnUnfilledRecordIsWaitedFor) {
  TestTable table;
  const Offered created = table.Offer(3);
  const auto insert = [](Qen::HashValue&) { return KAVO_NO_MEMORY; };
  int calls = 0;
  unsigned char* seen = nullptr;
  for (const int answer : {KAVO_SUCCESS, KAVO_FAILED, KAVO_NO_MEMORY}) {
    const auto found = [&](unsigned char& block) {
      ++calls;
      seen = &block;
      return answer;
    };
    EXPECT_EQ(table.InsertOrFind(3, insert, found), answer);
    EXPECT_EQ(seen, created.block);
  }
  EXPECT_EQ(calls, 3);

  Core::Entry filling;  // as if its owner never came back
  Core* core = nullptr;
  ASSERT_EQ(table.CurrentGeneration()->InsertOrFindProcess(4, filling, core), Qen::ENTRY_INSERTED);
  LogCapture log(Qen::SetLogSink);
  Qen::TestHooks::SetWaitLimit(4);
  EXPECT_EQ(table.Offer(4).status, KAVO_FAILED);
  Qen::TestHooks::SetWaitLimit(0);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"waitTimes > HCore::MAX_WAIT_TIME"}));
}

}  // namespace
}  // namespace KavoTest
