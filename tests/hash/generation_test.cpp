// One generation: what it stores when it is full, and the log lines of steps that cannot be taken.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hash/test_table.h"
#include "support/log_capture.h"

namespace KavoTest {
namespace {

using Qen::ENTRY_FOUND;
using Qen::ENTRY_INSERTED;
using Qen::MUST_GROW;
using Texts = std::vector<std::string>;

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
