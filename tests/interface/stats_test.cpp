// A table's ledger, against what the calls made of it must have cost.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <thread>

#include "kavo.hpp"

namespace KavoTest {
namespace {

constexpr unsigned ID = 6;
constexpr unsigned CELL_BYTES = 16;
constexpr std::array<unsigned char, 16> VALUE{};

// Their values come from the memory that creation has reserved, as long as there is any.
void Write(const kavo::Table& table, long first, long count) {
  for (long key = first; key < first + count; ++key) {
    table.InsertOrUpdate(key, VALUE);
  }
}

TEST(Stats, FillNoMoreThanBothSidesKnow) {
  const kavo::Table table(ID, 100, sizeof(VALUE));
  struct {
    KavoTableStats known;
    unsigned long long unknown;
  } larger{};
  larger.known.size = sizeof(larger);
  larger.unknown = 4711;
  ASSERT_EQ(KAVO_SUCCESS, KavoGetTableStats(ID, &larger.known));
  EXPECT_EQ(sizeof(KavoTableStats), larger.known.size);
  EXPECT_EQ(1U, larger.known.generations);
  EXPECT_EQ(4711U, larger.unknown);
}

// So many keys a thread. Each thread begins elsewhere in the memory that creation has reserved, until that is gone.
TEST(Stats, ValueBytesAreThoseOfTheKeysWhicheverThreadsInsertedThem) {
  constexpr long SIZE = 10007;
  for (const long ofThread : {4001L, 503L, 61L}) {
    SCOPED_TRACE(ofThread);
    const kavo::Table table(ID, SIZE, sizeof(VALUE));
    const unsigned long long reserved = table.Stats().stockBytes;
    EXPECT_EQ(0U, table.Stats().valueBytes);
    Write(table, 0, 1);
    const unsigned long long block = table.Stats().valueBytes;
    EXPECT_GE(block, sizeof(VALUE) + 4);
    for (long keys = 1; keys < SIZE + 4001;) {
      std::thread([&] { Write(table, keys, ofThread); }).join();
      keys += ofThread;
      const KavoTableStats stats = table.Stats();
      ASSERT_EQ(block * static_cast<unsigned long long>(keys), stats.valueBytes);
      if (keys <= SIZE) {
        ASSERT_EQ(reserved, stats.valueBytes + stats.stockBytes);
      }
    }
  }
}

TEST(Stats, LeftCellsGoBackAndEachGrowthIsCounted) {
  constexpr unsigned long long SMALL = 512U << 10;  // generations too small to have pages, all together
  for (const kavo::RehashMode mode : {kavo::RehashMode::GRADUAL, kavo::RehashMode::WHOLE_TABLE}) {
    const kavo::Table table(ID, 8, sizeof(VALUE));
    table.SetRehashMode(mode);
    EXPECT_EQ(16U * CELL_BYTES, table.Stats().cellBytes);
    unsigned long long most = 1;
    unsigned long long growths = 0;
    for (long i = 0; i < 300'000; ++i) {
      Write(table, static_cast<long>(static_cast<unsigned long>(i) * 0x9E3779B97F4A7C15UL >> 2), 1);
      if (i % 1000 == 0) {
        const KavoTableStats stats = table.Stats();
        ASSERT_GE(stats.growths, growths);
        growths = stats.growths;
        most = std::max<unsigned long long>(most, stats.generations);
      }
      if (i == 20'000) {  // cells that a walk may come to do not go back before it ends
        long walked = 0;
        for (const KavoHtBatchElement& entry : table.Export(kavo::ExportMode::ALL)) {
          walked += entry.value != nullptr ? 1 : 0;
        }
        EXPECT_EQ(i + 1, walked);
      }
    }
    const KavoTableStats stats = table.Stats();
    EXPECT_GE(stats.growths, 10U);
    EXPECT_GE(stats.movedEntries, 100'000U);
    EXPECT_GE(stats.cellBytes, 300'000U * CELL_BYTES / 2);
    EXPECT_LE(stats.leftCellBytes, SMALL);
    EXPECT_EQ(mode == kavo::RehashMode::GRADUAL, most > 1) << "alone, no whole-table growth is seen under way";
    EXPECT_EQ(0U, stats.backstopCompletions);
  }
}

// Keys whose home lies within a run of others find no cell within reach.
TEST(Stats, OverflowMapsAndTheirEntriesAreCounted) {
  const kavo::Table table(ID, 2000, sizeof(VALUE));
  Write(table, 0, 400);
  EXPECT_EQ(0U, table.Stats().maps + table.Stats().mapBytes);
  Write(table, 1L << 32 | 5, 1);
  const KavoTableStats one = table.Stats();
  EXPECT_EQ(1U, one.maps);
  for (long i = 2; i <= 100; ++i) {
    Write(table, i << 32 | 5, 1);
  }
  EXPECT_EQ(1U, table.Stats().maps);
  EXPECT_GE(table.Stats().mapBytes - one.mapBytes, 99U * 16) << "a key and a record each, at the least";
}

TEST(Stats, LinesHeldBackAreCounted) {
  const kavo::Table table(ID, 8, sizeof(VALUE));
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3000; ++i) {  // 1,000 at once may go out, and 100 a second
    EXPECT_FALSE(table.TryLookup(1));
  }
  testing::internal::GetCapturedStderr();
  EXPECT_GE(table.Stats().linesHeldBack, 1U);
  EXPECT_LE(table.Stats().linesHeldBack, 3000U);
}

}  // namespace
}  // namespace KavoTest
