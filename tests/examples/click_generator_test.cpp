#include "ctr_training/click_generator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>
#include <thread>

namespace CtrTraining {
namespace {

RowBlock Rows(std::uint64_t seed, std::uint64_t first, std::uint64_t count) {
  RowBlock block;
  ClickGenerator(count, seed).Generate(first, count, block);
  return block;
}

TEST(ClickGenerator, RowsFollowFromSeedAndRowNumberAlone) {
  constexpr std::uint64_t COUNT = 3000;
  const RowBlock whole = Rows(5, 0, COUNT);
  for (const std::uint64_t split : {1U, 7U, 256U, 1000U}) {
    std::vector<ClickRow> rows;
    std::vector<double> logits;
    for (std::uint64_t first = 0; first < COUNT; first += split) {
      const RowBlock part = Rows(5, first, std::min(split, COUNT - first));
      rows.insert(rows.end(), part.rows.begin(), part.rows.end());
      logits.insert(logits.end(), part.trueLogits.begin(), part.trueLogits.end());
    }
    EXPECT_EQ(rows, whole.rows);
    EXPECT_EQ(logits, whole.trueLogits);
  }
  EXPECT_NE(Rows(6, 0, COUNT).rows, whole.rows);
}

TEST(ClickGenerator, ThreadsGetEveryRowOnce) {
  constexpr std::uint64_t COUNT = 10'001;
  ClickGenerator generator(COUNT, 5);
  std::mutex mutex;
  std::map<std::uint64_t, ClickRow> rows;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (RowBlock block; generator.Next(block);) {
          const std::lock_guard lock(mutex);
          for (std::size_t row = 0; row < block.rows.size(); ++row) {
            EXPECT_TRUE(rows.emplace(block.firstRow + row, block.rows[row]).second);
          }
        }
      });
    }
  }
  const RowBlock whole = Rows(5, 0, COUNT);
  ASSERT_EQ(rows.size(), COUNT);
  EXPECT_TRUE(std::equal(rows.begin(), rows.end(), whole.rows.begin(),
                         [](const auto& entry, const ClickRow& row) { return entry.second == row; }));
}

TEST(ClickGenerator, ClicksComeUpAsOftenAsTheTrueModelSays) {
  const RowBlock block = Rows(5, 0, 20'000);
  // Within bands of the logit, clicks against the sum of probabilities, in standard deviations.
  std::map<int, std::array<double, 3>> bands;
  for (std::size_t i = 0; i < block.rows.size(); ++i) {
    const double probability = 1.0 / (1.0 + std::exp(-block.trueLogits[i]));
    auto& [clicks, expected, variance] = bands[static_cast<int>(std::floor(block.trueLogits[i]))];
    clicks += block.rows[i].clicked ? 1.0 : 0.0;
    expected += probability;
    variance += probability * (1.0 - probability);
  }
  EXPECT_GE(bands.size(), 6U);
  for (const auto& [band, sums] : bands) {
    EXPECT_LE(std::abs(sums[0] - sums[1]), 5.0 * std::sqrt(sums[2]) + 1.0) << "logit from " << band;
  }
}

TEST(ClickGenerator, CategoriesAreHeavyTailedAndFieldsDifferInSize) {
  const RowBlock block = Rows(5, 0, 20'000);
  std::size_t smallest = block.rows.size();
  std::size_t largest = 0;
  for (std::size_t field = 0; field < CATEGORY_FIELDS; ++field) {
    std::map<std::uint32_t, std::size_t> counts;
    for (const ClickRow& row : block.rows) {
      if (row.categories[field]) {
        ++counts[*row.categories[field]];
      }
    }
    smallest = std::min(smallest, counts.size());
    largest = std::max(largest, counts.size());
    const auto byCount = [](const auto& a, const auto& b) { return a.second < b.second; };
    const std::size_t top = std::max_element(counts.begin(), counts.end(), byCount)->second;
    std::size_t total = 0;
    for (const auto& [value, count] : counts) {
      total += count;
    }
    // Were all values alike, this would be about 1.
    const double lead = static_cast<double>(top * counts.size()) / static_cast<double>(total);
    EXPECT_GT(lead, 1.3) << "field " << field;
  }
  EXPECT_LE(smallest, 3U);
  EXPECT_GE(largest, 5'000U);
}

}  // namespace
}  // namespace CtrTraining
