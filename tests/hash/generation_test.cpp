// Where a key goes in one generation, and what the generation answers.
#include <gtest/gtest.h>

#include <vector>

#include "hash/test_table.h"
#include "platform/log_sink.h"
#include "support/log_capture.h"

namespace KavoTest {
namespace {

using Qen::ENTRY_FOUND;
using Qen::ENTRY_INSERTED;
using Qen::MUST_GROW;

// One run of insert-or-find; a claimed record gets a block at once.
class Generation : public ::testing::Test {
 protected:
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

  TestBlocks m_blocks;
  Core::Entry m_entry;
  Core* m_core = nullptr;
};

TEST_F(Generation, FirstOfferInsertsAndSecondFindsTheSameBlock) {
  Core core(8, m_blocks.Directory());
  EXPECT_EQ(Insert(core, 5), ENTRY_INSERTED);
  const unsigned char* block = m_entry.block;
  EXPECT_EQ(m_core, &core);
  EXPECT_EQ(Insert(core, 5), ENTRY_FOUND);
  EXPECT_EQ(m_entry.block, block);
  EXPECT_EQ(core.FindValueProcess(5), block);
  EXPECT_EQ(core.CellAt(5).LoadKey(), 5);
  EXPECT_EQ(core.FindValueProcess(13), nullptr);  // same bucket, other key
}

TEST_F(Generation, ChainsAreLinkedInProbeOrderAcrossTheEndOfTheArray) {
  Core core(8, m_blocks.Directory());
  for (const long key : {6L, 14L, 22L, 7L}) {
    EXPECT_EQ(Insert(core, key), ENTRY_INSERTED);
  }
  EXPECT_EQ(core.CellAt(6).firstLink.Distance(), 1U);  // 14 in cell 7
  EXPECT_EQ(core.CellAt(7).nextLink.Distance(), 1U);   // 22 in cell 0
  EXPECT_EQ(core.CellAt(0).LoadKey(), 22);
  EXPECT_EQ(core.CellAt(7).firstLink.Distance(), 2U);  // 7, whose home cell is taken, in cell 1
  for (const long key : {6L, 14L, 22L, 7L}) {
    ASSERT_NE(core.FindValueProcess(key), nullptr) << key;
  }
  EXPECT_EQ(core.FindValueProcess(15), nullptr);
}

TEST_F(Generation, KeysThatDifferAboveTheBucketBitsAreToldApart) {
  Core core(8, m_blocks.Directory());
  const long keys[] = {3, 3 + (1L << 32), 3 + (1L << 62)};
  for (const long key : keys) {
    EXPECT_EQ(Insert(core, key), ENTRY_INSERTED);
  }
  EXPECT_NE(core.FindValueProcess(keys[0]), core.FindValueProcess(keys[1]));
  EXPECT_NE(core.FindValueProcess(keys[1]), core.FindValueProcess(keys[2]));
}

TEST_F(Generation, AProbeEndsAtTheHomeCellAndThenTheKeyGoesToAMap) {
  Core core(8, m_blocks.Directory());
  for (long key = 3; key < 8 * 8; key += 8) {
    EXPECT_EQ(Insert(core, key), ENTRY_INSERTED);
  }
  EXPECT_EQ(core.MapNum(), 0U);
  EXPECT_EQ(Insert(core, 67), MUST_GROW);
  EXPECT_NE(m_entry.record, nullptr);
  EXPECT_EQ(core.MapNum(), 1U);
  EXPECT_EQ(core.CellAt(3).flags.Load(), Qen::HCore::MAP_READY);
  for (long key = 3; key <= 67; key += 8) {
    EXPECT_NE(core.FindValueProcess(key), nullptr) << key;
  }
}

TEST_F(Generation, OverTheThresholdOnlyWhatNeedsNoProbeIsStored) {
  Core core(1024, m_blocks.Directory());
  FillBehindBucketZero(core);
  EXPECT_EQ(Insert(core, 1024), MUST_GROW);  // creates bucket 0's map
  EXPECT_NE(m_entry.record, nullptr);
  EXPECT_EQ(Insert(core, 500), MUST_GROW);  // an empty home cell
  EXPECT_NE(m_entry.record, nullptr);
  EXPECT_EQ(Insert(core, 2048), MUST_GROW);  // an existing map
  EXPECT_NE(m_entry.record, nullptr);
  EXPECT_EQ(Insert(core, 1025), MUST_GROW);  // would need the probe
  EXPECT_EQ(m_entry.record, nullptr);
  EXPECT_EQ(core.FindValueProcess(1025), nullptr);
  EXPECT_EQ(Insert(core, 2048), ENTRY_FOUND);
  EXPECT_EQ(core.MapNum(), 1U);
}

TEST_F(Generation, ABucketWithAMapTakesNewKeysIntoTheMapEvenWhereCellsAreFree) {
  Core core(4096, m_blocks.Directory());  // three maps are within its threshold
  FillBehindBucketZero(core);
  EXPECT_EQ(Insert(core, 4096), ENTRY_INSERTED);
  EXPECT_EQ(Insert(core, 2 * 4096), ENTRY_INSERTED);
  EXPECT_EQ(core.FindMap(0)->entries.size(), 2U);
  EXPECT_EQ(core.CellAt(129).LoadKey(), Qen::HCore::EMPTY_KEY);
}

TEST_F(Generation, AMissInAMapIsReportedOnceAndAMissWithoutOneIsNot) {
  Core core(4096, m_blocks.Directory());
  FillBehindBucketZero(core);
  Insert(core, 4096);
  LogCapture log(Qen::SetLogSink);
  EXPECT_EQ(core.FindValueProcess(2 * 4096), nullptr);
  EXPECT_EQ(core.FindValueProcess(1 + 4096), nullptr);
  EXPECT_EQ(core.FindValueProcess(3000), nullptr);
  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_EQ(log.Lines()[0].message, "key is not exist in map! bucketHead[0], tableSize[4096]");
  EXPECT_EQ(log.Lines()[0].function, "MapFind");
  EXPECT_EQ(log.Lines()[0].level, KAVO_LOG_LEVEL_ERROR);
}

TEST_F(Generation, AMovedBucketSendsTheKeyToTheNextGeneration) {
  Core core(8, m_blocks.Directory());
  core.CellAt(2).flags.TryBeginMove();
  core.CellAt(2).flags.FinishMove();
  {
    LogCapture log(Qen::SetLogSink);
    EXPECT_EQ(Insert(core, 10), KAVO_FAILED);
    EXPECT_EQ(log.Count("Current key has been rehashed but m_nextHashCore is nullptr!"), 1U);
  }
  Core next(16, m_blocks.Directory());
  core.PublishNext(&next);
  EXPECT_EQ(Insert(core, 10), ENTRY_INSERTED);
  EXPECT_EQ(m_core, &next);
  EXPECT_EQ(core.CellAt(2).LoadKey(), Qen::HCore::EMPTY_KEY);
}

TEST_F(Generation, ABucketBeingMovedAnswersPresentKeysAtOnceAndLetsNewOnesWait) {
  Core core(8, m_blocks.Directory());
  Insert(core, 2);
  core.CellAt(2).flags.TryBeginMove();
  EXPECT_EQ(Insert(core, 2), ENTRY_FOUND);
  Qen::TestHooks::SetWaitLimit(3);
  LogCapture log(Qen::SetLogSink);
  EXPECT_EQ(Insert(core, 10), KAVO_FAILED);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"RehashAcquire overtime", "RehashAcquire failed!"}));
  Qen::TestHooks::SetWaitLimit(0);
  core.CellAt(2).flags.AbandonMove();
  EXPECT_EQ(Insert(core, 10), ENTRY_INSERTED);
}

TEST_F(Generation, AMapThatNeverBecomesReadyFailsTheInsertButNotTheLookup) {
  Core core(4096, m_blocks.Directory());
  FillBehindBucketZero(core);
  std::uint8_t observed = 0;
  ASSERT_TRUE(core.CellAt(0).flags.TryBeginMap(observed));
  Qen::TestHooks::SetWaitLimit(3);
  LogCapture log(Qen::SetLogSink);
  EXPECT_EQ(Insert(core, 4096), KAVO_FAILED);
  Qen::TestHooks::SetWaitLimit(0);
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"MapExistAcquire overtime",
                                                      "MapExistAcquire failed, bucketHead[0], tableSize[4096]"}));
  EXPECT_EQ(core.FindValueProcess(4096), nullptr);
  core.CellAt(0).flags.WithdrawMap();
  EXPECT_EQ(Insert(core, 4096), ENTRY_INSERTED);
}

}  // namespace
}  // namespace KavoTest
