// Batches beside batches, on tables that grow from eight entries, in both ways.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <random>
#include <thread>
#include <vector>

#include "kavo.h"
#include "support/seed.h"

namespace {

constexpr unsigned TABLE = 5;
constexpr unsigned LEN = 16;
constexpr long KEYS = 20000;
constexpr std::size_t BATCH = 50;

long KeyAt(long i) {
  return static_cast<long>((static_cast<unsigned long>(i) * 0x9E3779B97F4A7C15UL) >> 8);
}

class ConcurrentBatches : public testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    ASSERT_EQ(KAVO_SUCCESS, KavoSetRehashMode(TABLE, GetParam()));
  }
  void TearDown() override { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE)); }
};
INSTANTIATE_TEST_SUITE_P(, ConcurrentBatches, testing::Values(KAVO_REHASH_GRADUAL, KAVO_REHASH_WHOLE_TABLE));

TEST_P(ConcurrentBatches, EachKeyHasOneCreatorAndOneAddress) {
  constexpr std::size_t THREADS = 3;
  const unsigned long seed = KavoTest::TestSeed();
  std::array<std::vector<unsigned char*>, THREADS> addresses;
  std::array<long, THREADS> created{};
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < THREADS; ++t) {
    threads.emplace_back([&, t] {
      std::vector<long> keys(KEYS);
      std::vector<long> order(KEYS);
      for (long i = 0; i < KEYS; ++i) {
        order[static_cast<std::size_t>(i)] = i;
      }
      std::shuffle(order.begin(), order.end(), std::mt19937_64(seed + t % 2));  // two of them meet everywhere
      std::transform(order.begin(), order.end(), keys.begin(), KeyAt);
      std::vector<unsigned char*> values(KEYS);
      std::vector<unsigned> isFind(KEYS);
      for (std::size_t at = 0; at < keys.size(); at += BATCH) {
        unsigned long long done = 0;
        if (KavoBatchLookupOrInsert(TABLE, &keys[at], BATCH, &values[at], &isFind[at], 0, &done) != KAVO_SUCCESS ||
            done != BATCH) {
          ADD_FAILURE() << "batch at " << at;
          return;
        }
      }
      addresses[t].resize(KEYS);
      for (std::size_t i = 0; i < keys.size(); ++i) {
        addresses[t][static_cast<std::size_t>(order[i])] = values[i];
        created[t] += isFind[i] == 0 ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(KEYS, created[0] + created[1] + created[2]);
  EXPECT_EQ(addresses[0], addresses[1]);
  EXPECT_EQ(addresses[0], addresses[2]);
}

// Two writers insert whole values, a reader takes batches of all keys: those that were in before its call began it must
// find, and whatever it finds is whole.
TEST_P(ConcurrentBatches, AReaderFindsWhatWasInAndNeverHalfAValue) {
  std::array<std::atomic<long>, 2> inserted{};
  std::vector<std::thread> writers;
  const auto row = [](long i) { return std::vector<unsigned char>(LEN, static_cast<unsigned char>(i % 250 + 1)); };
  for (long w = 0; w < 2; ++w) {
    writers.emplace_back([&, w] {
      for (long at = 0; at < KEYS / 2; at += static_cast<long>(BATCH)) {
        std::vector<long> keys;
        std::vector<unsigned char> rows;
        for (long i = at; i < at + static_cast<long>(BATCH); ++i) {
          keys.push_back(KeyAt(2 * i + w));
          const auto bytes = row(2 * i + w);
          rows.insert(rows.end(), bytes.begin(), bytes.end());
        }
        unsigned long long done = 0;
        if (KavoBatchInsertOrUpdate(TABLE, keys.data(), BATCH, rows.data(), LEN, 0, &done) != KAVO_SUCCESS) {
          ADD_FAILURE() << "batch at " << at;
        }
        inserted[static_cast<std::size_t>(w)].store(at + static_cast<long>(BATCH));
      }
    });
  }
  std::mt19937_64 random(KavoTest::TestSeed());
  long wrong = 0;
  while (inserted[0].load() < KEYS / 2 || inserted[1].load() < KEYS / 2) {
    const std::array<long, 2> before{inserted[0].load(), inserted[1].load()};
    std::vector<long> numbers(BATCH);
    std::vector<long> keys(BATCH);
    std::generate(numbers.begin(), numbers.end(), [&] { return static_cast<long>(random() % KEYS); });
    std::transform(numbers.begin(), numbers.end(), keys.begin(), KeyAt);
    std::vector<unsigned char*> values(BATCH);
    std::vector<unsigned char> rows(BATCH * LEN);
    const std::vector<unsigned char> absent(LEN, 0);
    KavoTableStats stats{};
    stats.size = sizeof(stats);
    ASSERT_EQ(KAVO_SUCCESS, KavoGetTableStats(TABLE, &stats));
    ASSERT_LE(stats.valueBytes / LEN, 4 * static_cast<unsigned long long>(KEYS));
    unsigned long long found = 0;
    ASSERT_EQ(KAVO_SUCCESS, KavoBatchLookup(TABLE, keys.data(), BATCH, values.data(), &found));
    ASSERT_EQ(KAVO_SUCCESS, KavoBatchGather(TABLE, keys.data(), BATCH, rows.data(), LEN, nullptr));
    for (std::size_t i = 0; i < BATCH; ++i) {
      const long number = numbers[i];
      const bool wasIn = number / 2 < before[static_cast<std::size_t>(number % 2)];
      const std::vector<unsigned char> got(&rows[i * LEN], &rows[i * LEN] + LEN);
      const bool whole = got == row(number);
      wrong +=
          (wasIn && (values[i] == nullptr || !whole)) || (values[i] != nullptr && !whole) || (!whole && got != absent)
              ? 1
              : 0;
    }
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
  EXPECT_EQ(0, wrong);
}

}  // namespace
