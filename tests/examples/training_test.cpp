#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <string>

#include "ctr_training/click_generator.h"
#include "ctr_training/click_log.h"
#include "ctr_training/features.h"
#include "ctr_training/library_log.h"
#include "ctr_training/model.h"
#include "ctr_training/trainer.h"

namespace CtrTraining {
namespace {

constexpr std::uint64_t BLOCK_ROWS = 50;

// Rows from memory. Beyond `badRow`, blocks fail as a log with bad lines does.
class RowsInMemory : public RowSource {
 public:
  explicit RowsInMemory(std::vector<ClickRow> rows, std::uint64_t badRow = ~std::uint64_t{0})
      : m_rows(std::move(rows)), m_badRow(badRow) {}
  std::uint64_t RowCount() const override { return m_rows.size(); }
  bool KnowsTruth() const override { return false; }
  void Rewind() override { m_next = 0; }
  bool Next(RowBlock& block) override {
    block.firstRow = m_next.fetch_add(BLOCK_ROWS);
    if (block.firstRow >= m_rows.size()) {
      return false;
    }
    const std::uint64_t end = std::min<std::uint64_t>(block.firstRow + BLOCK_ROWS, m_rows.size());
    if (end > m_badRow) {
      throw ClickLogError("bad block at " + std::to_string(block.firstRow));
    }
    block.rows.assign(&m_rows[block.firstRow], &m_rows[end - 1] + 1);
    return true;
  }

 private:
  const std::vector<ClickRow> m_rows;
  const std::uint64_t m_badRow;
  std::atomic<std::uint64_t> m_next{0};
};

// Rows of two fields with values below `values`, clicked as `rule` says; the other fields are empty.
template <typename Rule>
std::vector<ClickRow> TwoFieldRows(std::size_t count, unsigned values, Rule rule) {
  std::mt19937 random(1);
  std::vector<ClickRow> rows(count);
  for (ClickRow& row : rows) {
    const std::uint32_t first = static_cast<std::uint32_t>(random()) % values;
    const std::uint32_t second = static_cast<std::uint32_t>(random()) % values;
    row.categories[0] = first;
    row.categories[1] = second;
    row.clicked = rule(first, second);
  }
  return rows;
}

TrainingResult TrainOn(std::vector<ClickRow> rows, unsigned threads, unsigned epochs = 1) {
  TrainingOptions options;
  options.threads = threads;
  options.epochs = epochs;
  options.firstEvaluated = rows.size() / 2;
  RowsInMemory source(std::move(rows));
  const Model model(ModelOptions{});
  return Train(source, model, options);
}

TEST(Features, KeysAreNonNegativeDistinctAndSpreadInTheirLowBits) {
  constexpr std::size_t BUCKETS = 1 << 12;
  std::set<long> keys;
  std::vector<int> load(BUCKETS);
  for (std::uint64_t field = 0; field < 4; ++field) {
    for (std::uint64_t value = 0; value < BUCKETS; ++value) {
      const long key = FeatureKey(field, value << 8);
      EXPECT_GE(key, 0);
      EXPECT_TRUE(keys.insert(key).second);
      ++load[static_cast<std::size_t>(key) % BUCKETS];
    }
  }
  // Four keys a bucket on average; random keys exceed 24 about once in ten million buckets.
  EXPECT_LE(*std::max_element(load.begin(), load.end()), 24);

  std::set<std::uint64_t> buckets;
  for (const std::int64_t integer : {0L, 1L, 2L, 4L, -1L, -2L, -3L, -5L, INT64_MAX, INT64_MIN}) {
    EXPECT_TRUE(buckets.insert(IntegerBucket(integer)).second) << integer;
  }
  EXPECT_TRUE(buckets.insert(IntegerBucket(std::nullopt)).second);
}

TEST(Training, LearnsWeights) {
  for (const unsigned threads : {1U, 4U}) {
    const TrainingResult result =
        TrainOn(TwoFieldRows(4000, 10, [](unsigned a, unsigned) { return a % 2 == 0; }), threads);
    EXPECT_LT(result.model.MeanLogLoss(), 0.1) << threads << " threads";
    EXPECT_GT(result.model.Auc(), 0.999) << threads << " threads";
  }
}

// Each field alone says nothing here, so weights alone would stay at log 2 and an AUC of a half.
TEST(Training, LearnsInteractions) {
  for (const unsigned threads : {1U, 4U}) {
    const TrainingResult result =
        TrainOn(TwoFieldRows(20'000, 4, [](unsigned a, unsigned b) { return (a + b) % 2 == 0; }), threads);
    EXPECT_LT(result.model.MeanLogLoss(), 0.35) << threads << " threads";
    EXPECT_GT(result.model.Auc(), 0.95) << threads << " threads";
  }
}

// Labels that nothing predicts: whoever predicts them has seen them. Later epochs have, and must not count.
TEST(Training, EvaluatesRowsBeforeLearningThem) {
  std::mt19937 labels(2);
  const TrainingResult result =
      TrainOn(TwoFieldRows(4000, 1U << 30, [&labels](unsigned, unsigned) { return labels() % 2 == 0; }), 2, 10);
  EXPECT_EQ(result.model.Rows(), 2000U);
  // The standard deviation of the AUC of random predictions is about 0.013 here.
  EXPECT_NEAR(result.model.Auc(), 0.5, 0.065);
  EXPECT_GT(result.model.MeanLogLoss(), 0.68);
  ASSERT_EQ(result.epochLoss.size(), 10U);
  EXPECT_LT(result.epochLoss.back(), 0.6);
}

TEST(Training, CountsFeaturesOnceAndSeesTheTablesGrow) {
  RowBlock block;
  ClickGenerator(3000, 3).Generate(0, 3000, block);
  std::set<long> features;
  for (const ClickRow& row : block.rows) {
    const FeatureKeys keys = KeysOf(row);
    features.insert(keys.begin(), keys.end());
  }
  const LibraryLog libraryLog;
  const TrainingResult result = TrainOn(block.rows, 4);
  EXPECT_EQ(result.distinctFeatures, features.size());
  EXPECT_EQ(result.rows, 3000U);
  EXPECT_EQ(result.lookups, 3000 * (2 * FIELDS + 1));
  EXPECT_GE(libraryLog.Growths(), 2U);
}

TEST(Training, EarliestBadLineIsReportedWithAnyNumberOfThreads) {
  RowBlock block;
  ClickGenerator(2000, 3).Generate(0, 2000, block);
  for (unsigned threads = 1; threads <= 8; ++threads) {
    RowsInMemory source(block.rows, 1275);
    const Model model(ModelOptions{});
    TrainingOptions options;
    options.threads = threads;
    try {
      Train(source, model, options);
      ADD_FAILURE() << "no error";
    } catch (const ClickLogError& error) {
      EXPECT_STREQ(error.what(), "bad block at 1250");
    }
  }
}

// Threads that meet a new key at once must all see the same start, which is why it is derived and not written.
TEST(Parameters, UntouchedVectorsStartApartAndFromTheKey) {
  const VectorParameter::Rates rates;
  constexpr unsigned DIM = 6;
  std::vector<float> zeros(VectorParameter::Floats(DIM));
  const VectorParameter untouched(zeros.data(), DIM);
  std::set<float> coordinates;
  for (const long key : {1L, 2L, 3L}) {
    std::vector<float> once(DIM);
    std::vector<float> again(DIM);
    untouched.Read(key, rates, once);
    untouched.Read(key, rates, again);
    EXPECT_EQ(once, again);
    coordinates.insert(once.begin(), once.end());
  }
  EXPECT_EQ(coordinates.size(), 3 * DIM);
  EXPECT_GE(*coordinates.begin(), -rates.start);
  EXPECT_LE(*coordinates.rbegin(), rates.start);
  EXPECT_EQ(std::count(zeros.begin(), zeros.end(), 0.0F), static_cast<long>(zeros.size()));
}

TEST(KavoTable, FailedCallsThrowAndTheLibrarysErrorsReachStandardError) {
  const LibraryLog libraryLog;
  const KavoTable table(9, 8, 2);
  EXPECT_TRUE(table.LookupOrInsert(5).created);
  EXPECT_FALSE(table.LookupOrInsert(5).created);
  testing::internal::CaptureStderr();
  std::string message;
  try {
    table.LookupOrInsert(-5);
  } catch (const KavoError& error) {
    message = error.what();
  }
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  EXPECT_NE(message.find("KavoLookupOrInsert on table 9 answered -4 (KAVO_INVALID"), std::string::npos) << message;
  EXPECT_THROW(KavoTable(9, 8, 2), KavoError);
}

}  // namespace
}  // namespace CtrTraining
