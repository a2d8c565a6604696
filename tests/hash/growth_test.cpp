// Growth: what one insert pays for it, and what a failure leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "hash/test_table.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace KavoTest {
namespace {

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
    ASSERT_EQ(offered.status, Qen::ENTRY_INSERTED) << key;
    m_blocks[key] = offered.block;
  }
  void Store(TestTable& table, std::initializer_list<long> keys) {
    for (const long key : keys) {
      m_blocks[key] = table.Store(key);
    }
  }
  void ExpectExactly(TestTable& table) {
    ExpectWalked(table, m_blocks);
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

}  // namespace
}  // namespace KavoTest
