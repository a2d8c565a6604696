// Growth: what one insert pays for it, what a failure leaves behind, and the log lines of steps that cannot be taken.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "hash/test_table.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace KavoTest {
namespace {

using Qen::ENTRY_FOUND;
using Qen::ENTRY_INSERTED;
using Qen::MUST_GROW;
using Blocks = std::map<long, unsigned char*>;
using Texts = std::vector<std::string>;

unsigned long long MovedBuckets(const Core& core) {
  if (core.IsDeleted()) {
    return core.TableSize();
  }
  unsigned long long moved = 0;
  for (unsigned long long i = 0; i < core.TableSize(); ++i) {
    moved += (core.CellAt(i).flags.Load() & Qen::HCore::BUCKET_MOVED) != 0;
  }
  return moved;
}

class Growth : public ::testing::Test {
 protected:
  ~Growth() override { Qen::TestHooks::SetWaitLimit(0); }
  void Offer(TestTable& table, long key) {
    const Offered offered = table.Offer(key);
    ASSERT_EQ(offered.status, ENTRY_INSERTED) << key;
    m_blocks[key] = offered.block;
  }
  void Store(TestTable& table, std::initializer_list<long> keys) {
    for (const long key : keys) {
      m_blocks[key] = table.Store(key);
    }
  }
  void ExpectExactly(TestTable& table) {
    Blocks walked;
    for (Walk walk(table); !walk.AtEnd(); walk.Next()) {
      ASSERT_TRUE(walked.emplace(walk.EntryKey(), walk.EntryBlock()).second) << walk.EntryKey() << " twice";
    }
    EXPECT_EQ(m_blocks, walked);
    for (const auto& [key, block] : m_blocks) {
      ASSERT_EQ(table.BlockOf(key), block) << key;
    }
  }
  // All cells are bucket 0's, so that one more key needs a map and then growth.
  void FillAllCells(TestTable& table) { Store(table, {0, 8, 16, 24, 32, 40, 48, 56}); }

  Blocks m_blocks;
};

TEST_F(Growth, AGradualOnePaysForAFewBucketsWithEachInsertAndIsOverBeforeTheNext) {
  TestTable table(1024);
  table.SetRehashType(Qen::REHASH_GRADUAL);
  std::mt19937_64 random(TestSeed());
  for (int i = 0; i < 100'000; ++i) {
    const Core* const core = table.CurrentGeneration();
    const bool isLookedAt = i < 4000;
    const unsigned long long before = isLookedAt ? MovedBuckets(*core) : 0;
    Offer(table, static_cast<long>(random() >> 1));
    ASSERT_TRUE(!isLookedAt || MovedBuckets(*core) <= before + 20);
    ASSERT_TRUE(core->Next() == nullptr || core->Next()->Next() == nullptr);
  }
  EXPECT_EQ(table.BackstopCompletions(), 0U);
  EXPECT_GE(table.CurrentGeneration()->TableSize(), 1ULL << 16);
  ExpectExactly(table);
}

// A mover that never ends: who needs the bucket waits to the limit, sweeps pass it by.
TEST_F(Growth, ABucketThatAnotherThreadMovesFailsItsOwnInsertsOnly) {
  TestTable table;
  table.SetRehashType(Qen::REHASH_GRADUAL);
  FillAllCells(table);
  Store(table, {64});  // full
  table.FirstGeneration()->CellAt(1).flags.TryBeginMove();
  Qen::TestHooks::SetWaitLimit(3);
  const LogCapture log;
  EXPECT_EQ(table.Offer(9).status, KAVO_FAILED);
  EXPECT_EQ(log.Messages(), (Texts{"RehashAcquire overtime", "RehashAcquire failed!", "InsertOrFind failed!"}));
  for (const long key : {2L, 3L, 4L, 5L}) {
    Offer(table, key);
  }
  EXPECT_EQ(log.Lines().size(), 3U);
  ExpectExactly(table);
  EXPECT_FALSE(table.FirstGeneration()->IsDeleted());
  table.FirstGeneration()->CellAt(1).flags.AbandonMove();
  Offer(table, 9);
  EXPECT_TRUE(table.FirstGeneration()->IsDeleted());
  ExpectExactly(table);
}

// A lock that reports an error, at each step of a growth. The insert that brought the growth about stands, and the next
// one completes it.
class LockErrorAt : public Growth, public ::testing::WithParamInterface<const char*> {
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
  FillAllCells(table);
  s_point = GetParam();
  const LogCapture log;
  Qen::TestHooks::SetPointHandler(&Throw);
  Offer(table, 64);
  Qen::TestHooks::SetPointHandler(nullptr);
  EXPECT_TRUE(s_point.empty()) << "the point was not reached";
  EXPECT_EQ(log.Messages().back(), "MigrateHashCore failed!");
  ExpectExactly(table);
  EXPECT_EQ(table.FirstGeneration()->GetRehashNum(), 0U);
  Qen::TestHooks::SetWaitLimit(1);
  Offer(table, 1);
  Offer(table, 2);
  EXPECT_EQ(table.CurrentGeneration()->TableSize(), 16U);
  EXPECT_TRUE(table.FirstGeneration()->IsDeleted());
  ExpectExactly(table);
}

INSTANTIATE_TEST_SUITE_P(Points, LockErrorAt, ::testing::Values("Chain.Building", "Mover.Marked", "Chain.Leaving"));

class Generation : public ::testing::Test {
 protected:
  // One run of insert-or-find; a claimed record gets a block at once.
  int Insert(Core& core, long key) {
    m_entry = {};
    m_core = nullptr;
    const int ret = core.InsertOrFindProcess(key, m_entry, m_core);
    if (m_entry.record != nullptr) {
      m_entry.block = m_blocks.AttachNew(*m_entry.record);
    }
    return ret;
  }

  // 129 neighbours in their own home cells, so that a second key of bucket 0 finds no cell within reach.
  void FillBehindBucketZero(Core& core) {
    for (long key = 0; key <= 128; ++key) {
      ASSERT_EQ(Insert(core, key), ENTRY_INSERTED);
    }
  }

  // Fails after the shortened wait, with these log lines.
  void ExpectOvertime(Core& core, long key, const Texts& lines) {
    Qen::TestHooks::SetWaitLimit(3);
    const LogCapture log;
    EXPECT_EQ(Insert(core, key), KAVO_FAILED);
    EXPECT_EQ(log.Messages(), lines);
    Qen::TestHooks::SetWaitLimit(0);
  }

  TestBlocks m_blocks;
  Core::Entry m_entry;
  Core* m_core = nullptr;
};

TEST_F(Generation, OverTheThresholdOnlyWhatNeedsNoProbeIsStored) {
  Core core(1024, m_blocks.Directory());
  FillBehindBucketZero(core);
  for (const long key : {1024L, 500L, 2048L}) {  // creates bucket 0's map; an empty home cell; an existing map
    EXPECT_EQ(Insert(core, key), MUST_GROW);
    EXPECT_NE(m_entry.record, nullptr);
  }
  EXPECT_EQ(Insert(core, 1025), MUST_GROW);  // would need the probe
  EXPECT_EQ(m_entry.record, nullptr);
  EXPECT_EQ(core.FindValueProcess(1025), nullptr);
  EXPECT_EQ(Insert(core, 2048), ENTRY_FOUND);
  EXPECT_EQ(core.MapNum(), 1U);
}

TEST_F(Generation, AMovedBucketWithoutANextGenerationIsLogged) {
  Core core(8, m_blocks.Directory());
  core.CellAt(2).flags.TryBeginMove();
  core.CellAt(2).flags.FinishMove();
  const LogCapture log;
  EXPECT_EQ(Insert(core, 10), KAVO_FAILED);
  EXPECT_EQ(log.Count("Current key has been rehashed but m_nextHashCore is nullptr!"), 1U);
}

TEST_F(Generation, ABucketBeingMovedAnswersPresentKeysAtOnceAndLetsNewOnesWait) {
  Core core(8, m_blocks.Directory());
  Insert(core, 2);
  core.CellAt(2).flags.TryBeginMove();
  EXPECT_EQ(Insert(core, 2), ENTRY_FOUND);
  ExpectOvertime(core, 10, {"RehashAcquire overtime", "RehashAcquire failed!"});
  core.CellAt(2).flags.AbandonMove();
  EXPECT_EQ(Insert(core, 10), ENTRY_INSERTED);
}

TEST_F(Generation, AMapThatNeverBecomesReadyFailsTheInsertButNotTheLookup) {
  Core core(4096, m_blocks.Directory());
  FillBehindBucketZero(core);
  std::uint8_t observed = 0;
  ASSERT_TRUE(core.CellAt(0).flags.TryBeginMap(observed));
  ExpectOvertime(core, 4096, {"MapExistAcquire overtime", "MapExistAcquire failed, bucketHead[0], tableSize[4096]"});
  EXPECT_EQ(core.FindValueProcess(4096), nullptr);
  core.CellAt(0).flags.WithdrawMap();
  EXPECT_EQ(Insert(core, 4096), ENTRY_INSERTED);
}

TEST(Driver, AnUnfilledRecordIsWaitedFor) {
  TestTable table;
  Core::Entry filling;  // as if its owner never came back
  Core* core = nullptr;
  ASSERT_EQ(table.CurrentGeneration()->InsertOrFindProcess(4, filling, core), ENTRY_INSERTED);
  const LogCapture log;
  Qen::TestHooks::SetWaitLimit(4);
  EXPECT_EQ(table.Offer(4).status, KAVO_FAILED);
  Qen::TestHooks::SetWaitLimit(0);
  EXPECT_EQ(log.Messages(), Texts{"waitTimes > HCore::MAX_WAIT_TIME"});
}

}  // namespace
}  // namespace KavoTest
