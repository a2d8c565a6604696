// What holds when many threads call at once.
#include <algorithm>
#include <atomic>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "embedding/handle.h"

using namespace EmbeddingTest;

namespace {

constexpr unsigned DIM = 24;

bool Agrees(const float* row, std::size_t floats) {
  return std::all_of(row, row + floats, [row](float x) { return x == *row; });
}

// Writers train and set, and create rows, so that the tables grow; readers, by rows and by bags, see whole rows, and
// never a key that is there as zeros. The floats of a row agree at every moment: starts are one constant, gradients
// too. In the end SGD's updates are all there.
class TornRows : public testing::TestWithParam<unsigned> {};

TEST_P(TornRows, ReadersSeeTheFloatsOfOneMoment) {
  constexpr int ROUNDS = 1500;
  const bool isSgd = GetParam() == KAVO_OPTIMISER_SGD;
  KavoEmbeddingOptions options = Defaults(DIM, GetParam());
  options.rates.learningRate = 1;
  options.initialiser = KAVO_START_CONSTANT;
  options.startA = 1;
  options.expected = 8;
  options.growth = isSgd ? KAVO_REHASH_WHOLE_TABLE : KAVO_REHASH_GRADUAL;
  options.threads = 1;
  const Handle embedding = Make(options);
  std::vector<long> hot(16);
  std::iota(hot.begin(), hot.end(), -8);
  Forward(embedding, hot, DIM);
  std::atomic<long> sum{0};  // of the gradients
  std::atomic<bool> over{false};
  const auto write = [&](unsigned which) {
    std::mt19937_64 random(which);
    std::vector<float> gradients(hot.size() * DIM);
    std::vector<float> whole(hot.size() * 2 * DIM);
    for (int round = 0; round < ROUNDS; ++round) {
      const long gradient = static_cast<long>(random() % 100);
      sum += gradient;
      std::fill(gradients.begin(), gradients.end(), static_cast<float>(gradient));
      Must(KavoEmbeddingBackward(embedding.get(), hot.data(), hot.size(), gradients.data(), 1, nullptr));
      std::fill(whole.begin(), whole.end(), static_cast<float>(1 + gradient));
      Must(KavoEmbeddingSetRows(embedding.get(), hot.data(), 2, whole.data()));
      std::vector<long> fresh(8);
      std::generate(fresh.begin(), fresh.end(), [&] { return static_cast<long>(random()); });
      ASSERT_EQ(Forward(embedding, fresh, DIM), std::vector<float>(8 * DIM, 1));
    }
  };
  const auto read = [&] {
    std::vector<float> seen(hot.size() * DIM);
    std::vector<unsigned char> found(hot.size());
    const unsigned long long offsets[] = {0, 1, hot.size()};
    const KavoBags bags{sizeof(KavoBags), 2, offsets, nullptr, KAVO_POOL_SUM, 0, 0};
    float pooled[2 * DIM];
    while (!over.load()) {
      Must(KavoEmbeddingLookup(embedding.get(), hot.data(), hot.size(), KAVO_ABSENT_ZEROS, nullptr, seen.data(),
                               found.data()));
      for (std::size_t i = 0; i < hot.size(); ++i) {
        ASSERT_EQ(found[i], 1);
        ASSERT_TRUE(Agrees(&seen[i * DIM], DIM)) << "key " << hot[i];
      }
      Must(KavoEmbeddingLookupBags(embedding.get(), hot.data(), hot.size(), &bags, KAVO_ABSENT_ZEROS, nullptr, pooled));
      ASSERT_TRUE(Agrees(pooled, DIM));
      ASSERT_TRUE(Agrees(pooled + DIM, DIM));
    }
  };
  const std::jthread readers[] = {std::jthread(read), std::jthread(read)};
  { const std::jthread writers[] = {std::jthread(write, 1), std::jthread(write, 2)}; }
  over.store(true);
  const std::vector<long> trained(hot.begin() + 2, hot.end());  // and never set
  const std::vector<float> expected(trained.size() * DIM, static_cast<float>(1 - sum));
  EXPECT_TRUE(!isSgd || Lookup(embedding, trained, DIM) == expected);
  EXPECT_EQ(StatsOf(embedding).steps, 2ULL * ROUNDS);
}

INSTANTIATE_TEST_SUITE_P(, TornRows, testing::Values(KAVO_OPTIMISER_SGD, KAVO_OPTIMISER_ADAGRAD));

// One caller: the bytes of all rows depend on the calls only, and so does which occurrence admits a key.
TEST(EmbeddingConcurrent, BytesDoNotDependOnTheNumberOfThreads) {
  constexpr std::size_t NUM = 30000;
  std::mt19937_64 random(7);
  std::vector<long> keys(NUM);
  std::generate(keys.begin(), keys.end(), [&] { return static_cast<long>(random() % 9000) - 4000; });
  std::vector<unsigned> occurrences(NUM);
  std::generate(occurrences.begin(), occurrences.end(), [&] { return static_cast<unsigned>(1 + random() % 4); });
  std::vector<float> gradients(NUM * 7);
  std::generate(gradients.begin(), gradients.end(), [&] { return static_cast<float>(random() % 1000) / 999 - 0.3F; });
  const std::vector<unsigned> OPTIMISERS{KAVO_OPTIMISER_ROWWISE_ADAGRAD, KAVO_OPTIMISER_ADAM, KAVO_OPTIMISER_FTRL};
  for (const unsigned optimiser : OPTIMISERS) {
    std::vector<float> first;
    for (const unsigned threads : {1U, 2U, 3U, 8U}) {
      KavoEmbeddingOptions options = Defaults(7, optimiser);
      options.threads = threads;
      options.admission = optimiser == KAVO_OPTIMISER_FTRL ? 5 : 1;
      const Handle embedding = Make(options);
      std::vector<float> whole(NUM * KavoEmbeddingRowFloats(embedding.get()));
      for (int step = 0; step < 3; ++step) {
        unsigned long long without = 0;
        Must(KavoEmbeddingForward(embedding.get(), keys.data(), NUM, occurrences.data(), whole.data(), &without));
        whole.push_back(static_cast<float>(without));
        Must(KavoEmbeddingBackward(embedding.get(), keys.data(), NUM, gradients.data(), 0.5F, nullptr));
      }
      Must(KavoEmbeddingGetRows(embedding.get(), keys.data(), NUM, whole.data(), nullptr, nullptr));
      if (first.empty()) {
        first = whole;
      }
      EXPECT_TRUE(whole == first) << "optimiser " << optimiser << ", " << threads << " threads";
    }
  }
}

TEST(EmbeddingConcurrent, AForkedChildWorksOnItsOwnThreadAndDestroys) {
  KavoEmbeddingOptions options = Defaults(DIM, KAVO_OPTIMISER_SGD);
  options.threads = 3;
  const Handle embedding = Make(options);
  std::vector<long> keys(20000);
  std::iota(keys.begin(), keys.end(), 0);
  const std::vector<float> rows = Forward(embedding, keys, DIM);
  const int ended = InAChild([&] {
    const bool same = Lookup(embedding, keys, DIM, KAVO_ABSENT_ZEROS) == rows;
    return same && KavoEmbeddingBackward(embedding.get(), keys.data(), keys.size(), rows.data(), 1, nullptr) == 0 &&
                   KavoEmbeddingDestroy(embedding.get()) == 0
               ? 0
               : 1;
  });
  EXPECT_EQ(ended, 0);
}

}  // namespace
