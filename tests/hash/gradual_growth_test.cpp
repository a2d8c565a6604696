// Gradual growth: where entries are meanwhile, what a single insert moves, what a failure leaves behind.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "hash/test_table.h"
#include "platform/log_sink.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace KavoTest {
namespace {

class GradualTable : public TestTable {
 public:
  explicit GradualTable(unsigned long long cells = 8) : TestTable(cells) { SetRehashType(Qen::REHASH_GRADUAL); }
};

unsigned InUse(const TestTable& table) {
  unsigned count = 0;
  for (const Core* core = table.CurrentGeneration(); core != nullptr; core = core->Next()) {
    ++count;
  }
  return count;
}

unsigned long long MovedBuckets(const Core& core) {
  unsigned long long moved = 0;
  for (unsigned long long i = 0; i < core.TableSize(); ++i) {
    moved += (core.CellAt(i).flags.Load() & Qen::HCore::BUCKET_MOVED) != 0;
  }
  return moved;
}

// Through a walk and lookups.
void ExpectExactly(TestTable& table, const Blocks& blocks) {
  ExpectWalked(table, blocks);
  for (const auto& [key, block] : blocks) {
    ASSERT_EQ(table.BlockOf(key), block) << key;
  }
}

struct Subject {
  explicit Subject(unsigned long long cells = 8) : table(cells) {}
  void Offer(long key) { blocks[key] = table.Offer(key).block; }

  GradualTable table;
  Blocks blocks;
};

TEST(GradualGrowth, AFullGenerationIsEmptiedByTheInsertsThatFollowAFewBucketsEach) {
  Subject subject(1024);
  auto& [table, blocks] = subject;
  std::mt19937_64 random(TestSeed());
  const auto offer = [&] { subject.Offer(static_cast<long>(random() >> 1)); };
  const Core* const first = table.FirstGeneration();
  while (first->Next() == nullptr) {
    offer();
  }
  // The insert that built the second generation has moved its bucket and its share.
  EXPECT_GE(MovedBuckets(*first), 1U);
  EXPECT_LE(MovedBuckets(*first), 20U);
  ExpectExactly(table, blocks);
  unsigned inserts = 0;
  while (!first->IsDeleted()) {
    const unsigned long long before = MovedBuckets(*first);
    offer();
    ASSERT_LE(MovedBuckets(*first), before + 20) << "an insert pays for a few buckets only";
    if (++inserts % 10 == 0) {
      ExpectExactly(table, blocks);
    }
  }
  EXPECT_EQ(InUse(table), 1U);
  EXPECT_LE(inserts, 256U);
  EXPECT_EQ(table.BackstopCompletions(), 0U);
  ExpectExactly(table, blocks);
}

TEST(GradualGrowth, RandomKeysNeverNeedTheBackstopInTablesOfSomeSize) {
  GradualTable table(1024);
  std::mt19937_64 random(TestSeed());
  unsigned most = 0;
  for (int i = 0; i < 200'000; ++i) {
    table.Offer(static_cast<long>(random() >> 1));
    most = std::max(most, InUse(table));
  }
  EXPECT_EQ(most, 2U);
  EXPECT_EQ(table.BackstopCompletions(), 0U);
  EXPECT_GE(table.CurrentGeneration()->TableSize(), 1ULL << 17);
}

// Small tables fill while they are being moved into: three generations and more, the backstop at work.
TEST(GradualGrowth, SmallTablesOfAwkwardKeysKeepEveryBlockAndFinishTheOldest) {
  for (const unsigned shift : {0U, 3U, 10U, 20U}) {
    SCOPED_TRACE(shift);
    GradualTable table;
    Blocks blocks;
    unsigned most = 0;
    for (long i = 0; i < 1000; ++i) {
      const Offered offered = table.Offer(i << shift);
      ASSERT_EQ(offered.status, Qen::ENTRY_INSERTED);
      blocks[i << shift] = offered.block;
      most = std::max(most, InUse(table));
      if (i < 100 || i % 100 == 0) {
        ExpectExactly(table, blocks);
      }
    }
    EXPECT_LE(most, 4U);
    ExpectExactly(table, blocks);
  }
}

// The oldest of three goes straight into the third, past the second, whose buckets lead on from then on.
TEST(GradualGrowth, TheOldestIsFinishedPastTheMiddleGeneration) {
  GradualTable table;
  table.KeepLeftCells();
  Blocks blocks;
  for (long key = 0; key < 8; ++key) {
    blocks[key] = table.Store(key);
  }
  Core* const oldest = table.FirstGeneration();
  Core* middle = nullptr;
  ASSERT_EQ(table.Build(oldest, middle), KAVO_SUCCESS);
  Core* third = nullptr;
  ASSERT_EQ(table.Build(middle, third), KAVO_SUCCESS);
  unsigned long long entries = 0;
  ASSERT_EQ(table.RehashInsert(oldest, 3, middle, entries), KAVO_SUCCESS);  // a move that was given up left a copy
  ASSERT_EQ(table.RehashRemainBucket(oldest, third), KAVO_SUCCESS);
  EXPECT_EQ(table.BackstopCompletions(), 1U);
  EXPECT_EQ(table.CurrentGeneration(), third) << "the middle one is emptied too";
  ExpectAllMoved(*oldest);
  ExpectAllMoved(*middle);
  EXPECT_NE(middle->FindValueProcess(3), nullptr);
  EXPECT_EQ(middle->FindValueProcess(4), nullptr);
  ExpectExactly(table, blocks);
  EXPECT_EQ(table.RehashRemainBucket(oldest, third), KAVO_SUCCESS) << "left by now";
  EXPECT_EQ(table.BackstopCompletions(), 1U);
}

// Cells of some size are pages, which go back piece by piece.
TEST(GradualGrowth, TheMemoryOfLeftGenerationsGoesBackToTheSystem) {
  for (const unsigned char mode : {Qen::REHASH_GRADUAL, Qen::REHASH_WHOLE_TABLE}) {
    TestTable table(1ULL << 19);  // 8 MiB
    table.SetRehashType(mode);
    std::mt19937_64 random(TestSeed());
    const Core* const first = table.FirstGeneration();
    while (!first->IsDeleted()) {
      table.Offer(static_cast<long>(random() >> 1));
    }
    for (int i = 0; i < 10; ++i) {
      table.Offer(static_cast<long>(random() >> 1));
    }
    EXPECT_EQ(first->CellBytes(), 0U);
    for (unsigned long long i = 0; i < first->TableSize(); i += 4096 / 16) {
      ASSERT_EQ(first->CellAt(i).LoadKey(), Qen::HCore::EMPTY_KEY);
    }
    EXPECT_EQ(table.CurrentGeneration()->CellBytes(), 16ULL << 20);
  }
}

// What was left of a generation in gradual mode is finished in the other mode, and the other way round.
TEST(GradualGrowth, TheModeMayChangeWhileAGenerationIsHalfMoved) {
  for (const unsigned char mode : {Qen::REHASH_WHOLE_TABLE, Qen::REHASH_GRADUAL}) {
    Subject subject(1024);
    auto& [table, blocks] = subject;
    std::mt19937_64 random(TestSeed());
    const auto offer = [&] { subject.Offer(static_cast<long>(random() >> 1)); };
    while (table.FirstGeneration()->Next() == nullptr) {
      offer();
    }
    table.SetRehashType(mode);
    for (int i = 0; i < 20'000; ++i) {
      offer();
    }
    ExpectExactly(table, blocks);
    EXPECT_TRUE(table.FirstGeneration()->IsDeleted());
  }
}

// Every allocation of a growth fails once; thirty keys of one bucket need maps in each generation.
TEST(GradualGrowth, AFailureAtAnyPointLeavesATableThatServesTheSameOffersAtOnce) {
  const unsigned long long faults = FailEachAllocationOf(
      [] {
        auto subject = std::make_unique<Subject>();
        for (long i = 0; i < 20; ++i) {
          subject->blocks[i << 20] = subject->table.Store(i << 20);
        }
        return subject;
      },
      [](Subject& subject, unsigned long long) {
        LogCapture log(Qen::SetLogSink);
        for (long i = 20; i < 40; ++i) {
          const Offered offered = subject.table.Offer(i << 20);
          if (offered.status == Qen::ENTRY_INSERTED) {
            subject.blocks[i << 20] = offered.block;
          }
        }
        Qen::TestHooks::FailAllocation(0);
        ExpectExactly(subject.table, subject.blocks);
        Qen::TestHooks::SetWaitLimit(1);  // nothing may be left to wait for
        log.Clear();
        for (long i = 0; i < 100; ++i) {
          const Offered again = subject.table.Offer(i << 20);
          EXPECT_GE(again.status, 0);
          subject.blocks[i << 20] = again.block;
        }
        Qen::TestHooks::SetWaitLimit(0);
        EXPECT_EQ(log.Count("RehashAcquire overtime"), 0U);
        ExpectExactly(subject.table, subject.blocks);
      });
  EXPECT_GE(faults, 6U);
}

TEST(GradualGrowth, AnInsertThatStoredNothingFailsWithTheLinesOfTheGrowthItNeeded) {
  GradualTable table;
  Blocks blocks;
  for (long key = 0; key < 64; key += 8) {
    blocks[key] = table.Store(key);
  }
  Qen::TestHooks::FailAllocation(3, true);  // the map and its entry may be had, a generation not
  blocks[64] = table.Offer(64).block;
  LogCapture log(Qen::SetLogSink);
  EXPECT_EQ(table.Offer(1).status, KAVO_NO_MEMORY);
  Qen::TestHooks::FailAllocation(0);
  EXPECT_EQ(log.Messages(),
            (std::vector<std::string>{"make_unique failed, exception caught:std::bad_alloc",
                                      "AddNewTableAndRehash fail, ret[-3]", "NoNextTable failed, ret[-3]",
                                      "BeginGredualMigration failed!", "no enough mem!"}));
  ExpectExactly(table, blocks);
  EXPECT_EQ(table.Offer(1).status, Qen::ENTRY_INSERTED);
}

// A mover that never ends: who needs the bucket waits to the limit, sweeps pass it by.
TEST(GradualGrowth, ABucketThatAnotherThreadMovesFailsItsOwnInsertsOnly) {
  GradualTable table;
  Blocks blocks;
  for (long key = 0; key < 64; key += 8) {
    blocks[key] = table.Store(key);
  }
  blocks[64] = table.Store(64);  // full
  table.FirstGeneration()->CellAt(1).flags.TryBeginMove();
  Qen::TestHooks::SetWaitLimit(3);
  LogCapture log(Qen::SetLogSink);
  EXPECT_EQ(table.Offer(9).status, KAVO_FAILED);
  EXPECT_EQ(log.Messages(),
            (std::vector<std::string>{"RehashAcquire overtime", "RehashAcquire failed!", "InsertOrFind failed!"}));
  for (const long key : {2L, 3L, 4L, 5L}) {
    const Offered offered = table.Offer(key);
    EXPECT_EQ(offered.status, Qen::ENTRY_INSERTED);
    blocks[key] = offered.block;
  }
  ExpectExactly(table, blocks);
  EXPECT_FALSE(table.FirstGeneration()->IsDeleted());
  table.FirstGeneration()->CellAt(1).flags.AbandonMove();
  blocks[9] = table.Offer(9).block;
  Qen::TestHooks::SetWaitLimit(0);
  EXPECT_TRUE(table.FirstGeneration()->IsDeleted());
  ExpectExactly(table, blocks);
}

}  // namespace
}  // namespace KavoTest
