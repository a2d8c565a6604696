// A table's ledger, against what the calls made of it must have cost.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "kavo.h"
#include "support/values.h"

namespace KavoTest {
namespace {

constexpr unsigned TABLE = 6;
constexpr unsigned VALUE_LEN = 16;
constexpr unsigned CELL_BYTES = 16;

KavoTableStats StatsNow() {
  KavoTableStats stats{};
  stats.size = sizeof(stats);
  EXPECT_EQ(KAVO_SUCCESS, KavoGetTableStats(TABLE, &stats));
  return stats;
}

// Their values come from the memory that creation has reserved, as long as there is any.
void Write(long first, long count) {
  unsigned char value[VALUE_LEN] = {};
  for (long key = first; key < first + count; ++key) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(TABLE, key, value, VALUE_LEN, 0));
  }
}

class Stats : public testing::Test {
 protected:
  void Create(unsigned size) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, size, VALUE_LEN, KAVO_TABLE_TYPE_BASIC));
  }
  void TearDown() override { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE)); }
};

TEST_F(Stats, FillNoMoreThanBothSidesKnow) {
  Create(100);
  struct {
    KavoTableStats known;
    unsigned long long unknown;
  } larger{};
  larger.known.size = sizeof(larger);
  larger.unknown = 4711;
  ASSERT_EQ(KAVO_SUCCESS, KavoGetTableStats(TABLE, &larger.known));
  EXPECT_EQ(sizeof(KavoTableStats), larger.known.size);
  EXPECT_EQ(1U, larger.known.generations);
  EXPECT_EQ(4711U, larger.unknown);
}

class ThreadStats : public Stats, public testing::WithParamInterface<long> {};
INSTANTIATE_TEST_SUITE_P(, ThreadStats, testing::Values(4001L, 503L, 61L));

// So many keys a thread. Each thread begins elsewhere in the memory that creation has reserved, until that is gone.
TEST_P(ThreadStats, ValueBytesAreThoseOfTheKeysWhicheverThreadsInsertedThem) {
  constexpr long SIZE = 10007;
  Create(SIZE);
  const unsigned long long reserved = StatsNow().stockBytes;
  EXPECT_EQ(0U, StatsNow().valueBytes);
  Write(0, 1);
  const unsigned long long block = StatsNow().valueBytes;
  EXPECT_GE(block, VALUE_LEN + 4);
  for (long keys = 1; keys < SIZE + 4001;) {
    std::thread([&] { Write(keys, GetParam()); }).join();
    keys += GetParam();
    const KavoTableStats stats = StatsNow();
    ASSERT_EQ(block * static_cast<unsigned long long>(keys), stats.valueBytes);
    if (keys <= SIZE) {
      ASSERT_EQ(reserved, stats.valueBytes + stats.stockBytes);
    }
  }
}

// Cells that it may come to do not go back before it ends.
void Walk() {
  KavoHtBatchElement elements[1000];
  KavoHtBatchInfo batch{elements, 1000, KAVO_EXPORT_ALL, 0};
  unsigned count = 0;
  void* cursor = nullptr;
  do {
    ASSERT_EQ(KAVO_SUCCESS, KavoBatchGetNext(TABLE, &batch, &count, &cursor));
  } while (cursor != nullptr);
}

class GrowingStats : public Stats, public testing::WithParamInterface<unsigned> {};
INSTANTIATE_TEST_SUITE_P(, GrowingStats, testing::Values(KAVO_REHASH_GRADUAL, KAVO_REHASH_WHOLE_TABLE));

TEST_P(GrowingStats, LeftCellsGoBackAndEachGrowthIsCounted) {
  constexpr unsigned long long SMALL = 512U << 10;  // generations too small to have pages, all together
  Create(8);
  ASSERT_EQ(KAVO_SUCCESS, KavoSetRehashMode(TABLE, GetParam()));
  EXPECT_EQ(16U * CELL_BYTES, StatsNow().cellBytes);
  unsigned long long most = 1;
  unsigned long long growths = 0;
  for (long i = 0; i < 300'000; ++i) {
    Write(static_cast<long>(static_cast<unsigned long>(i) * 0x9E3779B97F4A7C15UL >> 2), 1);
    if (i % 1000 == 0) {
      const KavoTableStats stats = StatsNow();
      ASSERT_GE(stats.growths, growths);
      growths = stats.growths;
      most = stats.generations > most ? stats.generations : most;
    }
    if (i == 20'000) {
      Walk();
    }
  }
  const KavoTableStats stats = StatsNow();
  EXPECT_GE(stats.growths, 10U);
  EXPECT_GE(stats.movedEntries, 100'000U);
  EXPECT_GE(stats.cellBytes, 300'000U * CELL_BYTES / 2);
  EXPECT_LE(stats.leftCellBytes, SMALL);
  EXPECT_EQ(GetParam() == KAVO_REHASH_GRADUAL, most > 1) << "alone, a whole-table growth is never seen under way";
  EXPECT_EQ(0U, stats.backstopCompletions);
}

// Keys whose home lies within a run of others find no cell within reach.
TEST_F(Stats, OverflowMapsAndTheirEntriesAreCounted) {
  Create(2000);
  Write(0, 400);
  EXPECT_EQ(0U, StatsNow().maps + StatsNow().mapBytes);
  Write(1L << 32 | 5, 1);
  const KavoTableStats one = StatsNow();
  EXPECT_EQ(1U, one.maps);
  for (long i = 2; i <= 100; ++i) {
    Write(i << 32 | 5, 1);
  }
  EXPECT_EQ(1U, StatsNow().maps);
  EXPECT_GE(StatsNow().mapBytes - one.mapBytes, 99U * 16) << "a key and a record each, at the least";
}

TEST_F(Stats, LinesHeldBackAreCounted) {
  Create(8);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3000; ++i) {  // 1,000 at once may go out, and 100 a second
    EXPECT_EQ(nullptr, AddressOf(TABLE, 1));
  }
  testing::internal::GetCapturedStderr();
  const unsigned long long heldBack = StatsNow().linesHeldBack;
  EXPECT_GE(heldBack, 1U);
  EXPECT_LE(heldBack, 3000U);
}

}  // namespace
}  // namespace KavoTest
