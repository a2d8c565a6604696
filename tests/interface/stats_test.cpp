// A table's ledger, against what the calls made of it must have cost.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "interface/status_cases.h"
#include "kavo.h"

namespace {

constexpr unsigned TABLE = 6;
constexpr unsigned LEN = 16;
constexpr unsigned CELL_BYTES = 16;

KavoTableStats StatsOf(unsigned id) {
  KavoTableStats stats{};
  stats.size = sizeof(stats);
  EXPECT_EQ(KAVO_SUCCESS, KavoGetTableStats(id, &stats));
  return stats;
}

void Insert(unsigned id, long first, long count, unsigned filterCount = 0) {
  unsigned char* address = nullptr;
  unsigned len = 0;
  unsigned isFind = 0;
  for (long key = first; key < first + count; ++key) {
    ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(id, key, &address, &len, &isFind, filterCount));
  }
}

// Their values come from the memory that creation has reserved, as long as there is any.
void Write(unsigned id, long first, long count) {
  unsigned char value[LEN] = {};
  for (long key = first; key < first + count; ++key) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(id, key, value, LEN, 0));
  }
}

class Stats : public KavoTest::StatusCases {
 protected:
  void Create(unsigned size, unsigned type = KAVO_TABLE_TYPE_BASIC) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, size, LEN, type));
  }
  void TearDown() override { static_cast<void>(KavoUninitHashTable(TABLE)); }
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

  KavoTableStats stats;
  std::memset(&stats, 0x5A, sizeof(stats));
  const KavoTableStats untouched = stats;
  const auto call = [&stats](unsigned id, unsigned long long size) {
    return [&stats, id, size] {
      stats.size = size;
      const int ret = KavoGetTableStats(id, &stats);
      stats.size = 0x5A5A5A5A5A5A5A5AULL;
      return ret;
    };
  };
  const std::string name = "KavoGetTableStats";
  Check({
      {"null",
       KAVO_INVALID,
       [] { return KavoGetTableStats(TABLE, nullptr); },
       {{name, name + " failed, stats == nullptr"}}},
      {"size 0", KAVO_INVALID, call(TABLE, 0), {{name, name + " failed, stats->size[0] < 104"}}},
      {"too small", KAVO_INVALID, call(TABLE, 103), {{name, name + " failed, stats->size[103] < 104"}}},
      {"unused id", KAVO_INVALID, call(TABLE + 1, sizeof(stats)), {{name, "tableId[7] is nullptr"}}},
  });
  EXPECT_EQ(0, std::memcmp(&untouched, &stats, sizeof(stats)));
}

class ThreadStats : public Stats, public testing::WithParamInterface<long> {};
INSTANTIATE_TEST_SUITE_P(, ThreadStats, testing::Values(4001L, 503L, 61L));

// So many keys a thread. Each thread begins elsewhere in the memory that creation has reserved, until that is gone.
TEST_P(ThreadStats, ValueBytesAreThoseOfTheKeysWhicheverThreadsInsertedThem) {
  constexpr long SIZE = 10007;
  Create(SIZE);
  const unsigned long long reserved = StatsOf(TABLE).stockBytes;
  EXPECT_EQ(0U, StatsOf(TABLE).valueBytes);
  Write(TABLE, 0, 1);
  const unsigned long long block = StatsOf(TABLE).valueBytes;
  EXPECT_GE(block, LEN + 4);
  for (long keys = 1; keys < SIZE + 4001;) {
    std::thread([&] { Write(TABLE, keys, GetParam()); }).join();
    keys += GetParam();
    const KavoTableStats stats = StatsOf(TABLE);
    ASSERT_EQ(block * static_cast<unsigned long long>(keys), stats.valueBytes);
    if (keys <= SIZE) {
      ASSERT_EQ(reserved, stats.valueBytes + stats.stockBytes);
    }
  }
}

class GrowingStats : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(, GrowingStats, testing::Values(KAVO_REHASH_GRADUAL, KAVO_REHASH_WHOLE_TABLE));

TEST_P(GrowingStats, LeftCellsGoBackAndEachGrowthIsCounted) {
  constexpr unsigned long long SMALL = 512U << 10;  // generations too small to have pages, all together
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, 8, LEN, KAVO_TABLE_TYPE_BASIC));
  ASSERT_EQ(KAVO_SUCCESS, KavoSetRehashMode(TABLE, GetParam()));
  EXPECT_EQ(16U * CELL_BYTES, StatsOf(TABLE).cellBytes);
  unsigned char value[LEN] = {};
  unsigned most = 1;
  unsigned long long growths = 0;
  for (long i = 0; i < 300'000; ++i) {
    const long key = static_cast<long>(static_cast<unsigned long>(i) * 0x9E3779B97F4A7C15UL >> 2);
    ASSERT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(TABLE, key, value, LEN, 0));
    if (i % 1000 == 0) {
      const KavoTableStats stats = StatsOf(TABLE);
      ASSERT_GE(stats.growths, growths);
      growths = stats.growths;
      most = stats.generations > most ? static_cast<unsigned>(stats.generations) : most;
    }
  }
  const KavoTableStats stats = StatsOf(TABLE);
  EXPECT_GE(stats.growths, 10U);
  EXPECT_GE(stats.movedEntries, 100'000U);
  EXPECT_GE(stats.cellBytes, 300'000U * CELL_BYTES / 2);
  EXPECT_LE(stats.leftCellBytes, SMALL);
  EXPECT_EQ(GetParam() == KAVO_REHASH_GRADUAL, most > 1) << "alone, a whole-table growth is never seen under way";
  EXPECT_EQ(0U, stats.backstopCompletions);
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE));
}

// As in the test of batches: keys whose home lies within a run of others.
TEST_F(Stats, OverflowMapsAndTheirEntriesAreCounted) {
  Create(2000);
  Insert(TABLE, 0, 400);
  EXPECT_EQ(0U, StatsOf(TABLE).maps + StatsOf(TABLE).mapBytes);
  Insert(TABLE, 1L << 32 | 5, 1);
  const KavoTableStats one = StatsOf(TABLE);
  EXPECT_EQ(1U, one.maps);
  for (long i = 2; i <= 100; ++i) {
    Insert(TABLE, i << 32 | 5, 1);
  }
  EXPECT_EQ(1U, StatsOf(TABLE).maps);
  EXPECT_GE(StatsOf(TABLE).mapBytes - one.mapBytes, 99U * 16) << "a key and a record each, at the least";
}

TEST_F(Stats, FilterRecordsAreKeptApartFromValues) {
  Create(100, KAVO_TABLE_TYPE_FILTER);
  Insert(TABLE, 0, 1, 1);
  const unsigned long long record = StatsOf(TABLE).filterRecordBytes;
  EXPECT_GT(record, 0U);
  Insert(TABLE, 1, 499, 1);
  EXPECT_EQ(500 * record, StatsOf(TABLE).filterRecordBytes);
  EXPECT_EQ(0U, StatsOf(TABLE).valueBytes);
  Insert(TABLE, 0, 10, 99);
  EXPECT_EQ(500 * record, StatsOf(TABLE).filterRecordBytes);
  EXPECT_GE(StatsOf(TABLE).valueBytes, 10U * LEN);
}

TEST_F(Stats, LinesHeldBackAreCounted) {
  Create(8);
  const int terminal = dup(STDERR_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY);
  ASSERT_GE(dup2(nowhere, STDERR_FILENO), 0);
  const unsigned long long before = StatsOf(TABLE).linesHeldBack;
  for (int i = 0; i < 3000; ++i) {  // 1,000 at once may go out, and 100 a second
    static_cast<void>(KavoLookup(TABLE, 1, &valuePtr, &valueLen));
  }
  const unsigned long long heldBack = StatsOf(TABLE).linesHeldBack - before;
  ASSERT_GE(dup2(terminal, STDERR_FILENO), 0);
  close(terminal);
  close(nowhere);
  EXPECT_GE(heldBack, 1U);
  EXPECT_LE(heldBack, 2000U);
}

}  // namespace
