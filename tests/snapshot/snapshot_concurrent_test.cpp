// Saved while other threads train: rows are whole, keys that were there stand in the file once, increments miss
// nothing.
#include <atomic>
#include <numeric>
#include <thread>

#include "snapshot/snapshot_support.h"

namespace SnapshotTest {
namespace {

constexpr unsigned DIM = 8;
constexpr std::size_t KEYS = 2000;

// All floats of a row agree: they start at 0, and each step takes the same from all.
bool IsWhole(const std::string& record) {
  float floats[DIM];
  std::memcpy(floats, &record[8], sizeof(floats));
  return std::all_of(floats, floats + DIM, [&](float each) { return each == floats[0]; });
}

class BesideTraining : public ::testing::TestWithParam<unsigned> {};

TEST_P(BesideTraining, RowsAreWholeAndNothingIsMissed) {
  KavoEmbeddingOptions options = Defaults(DIM, KAVO_OPTIMISER_SGD);
  options.initialiser = KAVO_START_ZEROS;
  options.expected = 100;  // grows while it is saved
  options.growth = GetParam();
  options.threads = 2;
  const Handle live = Make(options);
  std::vector<long> keys(KEYS);
  std::iota(keys.begin(), keys.end(), -static_cast<long>(KEYS) / 2);
  Forward(live, keys, DIM);

  std::atomic<long> created{static_cast<long>(KEYS)};
  std::vector<std::jthread> trainers;
  for (long thread = 0; thread < 2; ++thread) {
    trainers.emplace_back([&, thread](const std::stop_token& stop) {
      const std::vector<float> gradients(64 * DIM, 1.0F);
      std::vector<float> out(64 * DIM);
      std::mt19937_64 random(static_cast<unsigned long>(thread));
      for (unsigned round = 0; !stop.stop_requested() || round < 20; ++round) {
        std::vector<long> batch(64);
        for (std::size_t i = 0; i < batch.size(); ++i) {
          // Half of them new, up to a size that the test has time for.
          batch[i] = i % 2 == 0 ? keys[random() % KEYS] : created.fetch_add(created < 100'000 ? 1 : 0);
        }
        KavoEmbeddingForward(live.get(), batch.data(), batch.size(), nullptr, out.data(), nullptr);
        KavoEmbeddingBackward(live.get(), batch.data(), batch.size(), gradients.data(), 1, nullptr);
      }
    });
  }
  const OwnFolder folder;
  for (unsigned snapshot = 0; snapshot < 6; ++snapshot) {
    const bool isFull = snapshot % 3 == 0;
    EXPECT_EQ(Save(folder.Path(), isFull ? KAVO_SNAPSHOT_FULL : KAVO_SNAPSHOT_INCREMENT, live.get()), KAVO_SUCCESS)
        << KavoEmbeddingLastError();
    const Records records = RecordsOf(folder.Path());  // none twice
    for (const auto& [name, record] : records) {
      ASSERT_TRUE(IsWhole(record)) << "key " << std::get<2>(name);
    }
    for (std::size_t i = 0; isFull && i < KEYS; ++i) {
      ASSERT_TRUE(records.contains({"rows", 1, keys[i]})) << "key " << keys[i];
    }
  }
  trainers.clear();
  // The last increment has what came after the one before was begun: together they are the embedding.
  Must(Save(folder.Path(), KAVO_SNAPSHOT_INCREMENT, live.get()));
  const Handle loaded = Loaded(folder.Path(), options);
  EXPECT_TRUE(Contents(loaded.get()) == Contents(live.get()));
  EXPECT_EQ(loaded->Rows(), live->Rows());
}

INSTANTIATE_TEST_SUITE_P(, BesideTraining, ::testing::Values(KAVO_REHASH_GRADUAL, KAVO_REHASH_WHOLE_TABLE));

}  // namespace
}  // namespace SnapshotTest
