// What holds when many threads call at once.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "embedding/handle.h"

using namespace EmbeddingTest;

namespace {

constexpr unsigned DIM = 24;

// Rows of a model whose floats all agree at every moment: starts are one constant, gradients too.
KavoEmbeddingOptions Agreeing(unsigned optimiser, unsigned growth) {
  KavoEmbeddingOptions options = Defaults(DIM, optimiser);
  options.initialiser = KAVO_START_CONSTANT;
  options.startA = 1;
  options.expected = 8;
  options.growth = growth;
  options.threads = 1;
  return options;
}

bool Agrees(const float* row, std::size_t floats) {
  return std::all_of(row, row + floats, [row](float x) { return x == *row; });
}

// Writers train and set, and create rows, so that the tables grow; readers, by rows and by bags, see whole rows, and
// never a key that is there as zeros.
class TornRows : public testing::TestWithParam<unsigned> {};

TEST_P(TornRows, ReadersSeeTheFloatsOfOneMoment) {
  const Handle embedding = Make(Agreeing(KAVO_OPTIMISER_ADAGRAD, GetParam()));
  std::vector<long> hot(16);
  for (std::size_t i = 0; i < hot.size(); ++i) {
    hot[i] = static_cast<long>(i) - 8;
  }
  std::vector<float> rows(hot.size() * DIM);
  Must(KavoEmbeddingForward(embedding.get(), hot.data(), hot.size(), nullptr, rows.data(), nullptr));
  std::atomic<bool> over{false};
  const auto write = [&](unsigned which) {
    std::mt19937_64 random(which);
    std::vector<float> gradients(hot.size() * DIM);
    std::vector<float> whole(hot.size() * 2 * DIM);
    for (int round = 0; round < 1500; ++round) {
      const float gradient = static_cast<float>(random() % 100) / 100;
      std::fill(gradients.begin(), gradients.end(), gradient);
      Must(KavoEmbeddingBackward(embedding.get(), hot.data(), hot.size(), gradients.data(), 1, nullptr));
      std::fill(whole.begin(), whole.end(), 1 + gradient);
      Must(KavoEmbeddingSetRows(embedding.get(), hot.data(), 2, whole.data()));
      long fresh[8];
      float starts[8 * DIM];
      for (long& key : fresh) {
        key = static_cast<long>(random());
      }
      Must(KavoEmbeddingForward(embedding.get(), fresh, 8, nullptr, starts, nullptr));
      ASSERT_TRUE(Agrees(starts, 8 * DIM));
      ASSERT_EQ(starts[0], 1);
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
  std::vector<std::thread> readers;
  readers.emplace_back(read);
  readers.emplace_back(read);
  std::vector<std::thread> writers;
  writers.emplace_back(write, 1);
  writers.emplace_back(write, 2);
  for (std::thread& writer : writers) {
    writer.join();
  }
  over.store(true);
  for (std::thread& reader : readers) {
    reader.join();
  }
}

INSTANTIATE_TEST_SUITE_P(BothWaysToGrow, TornRows, testing::Values(KAVO_REHASH_GRADUAL, KAVO_REHASH_WHOLE_TABLE));

TEST(EmbeddingConcurrent, NoUpdateIsLost) {
  constexpr int THREADS = 4;
  constexpr int CALLS = 3000;
  KavoEmbeddingOptions options = Agreeing(KAVO_OPTIMISER_SGD, KAVO_REHASH_WHOLE_TABLE);
  options.rates.learningRate = 1;
  const Handle embedding = Make(options);
  const long keys[] = {3, -3, 4};
  float rows[3 * DIM];
  Must(KavoEmbeddingForward(embedding.get(), keys, 3, nullptr, rows, nullptr));
  const std::vector<float> ones(3 * DIM, 1);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([&] {
      for (int call = 0; call < CALLS; ++call) {
        Must(KavoEmbeddingBackward(embedding.get(), keys, 3, ones.data(), 1, nullptr));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  Must(KavoEmbeddingLookup(embedding.get(), keys, 3, KAVO_ABSENT_ZEROS, nullptr, rows, nullptr));
  EXPECT_TRUE(Agrees(rows, 3 * DIM));
  EXPECT_EQ(rows[0], 1 - THREADS * CALLS);
  KavoEmbeddingStats stats{};
  stats.size = sizeof(stats);
  Must(KavoEmbeddingGetStats(embedding.get(), &stats));
  EXPECT_EQ(stats.steps, static_cast<unsigned long long>(THREADS) * CALLS);
}

// One caller: the bytes of all rows depend on the calls only.
TEST(EmbeddingConcurrent, BytesDoNotDependOnTheNumberOfThreads) {
  constexpr std::size_t NUM = 30000;
  std::mt19937_64 random(7);
  std::vector<long> keys(NUM);
  for (long& key : keys) {
    key = static_cast<long>(random() % 9000) - 4000;
  }
  std::vector<float> gradients(NUM * 7);
  for (float& gradient : gradients) {
    gradient = static_cast<float>(random() % 1000) / 999 - 0.3F;
  }
  const std::vector<unsigned> OPTIMISERS{KAVO_OPTIMISER_ROWWISE_ADAGRAD, KAVO_OPTIMISER_ADAM, KAVO_OPTIMISER_FTRL};
  for (const unsigned optimiser : OPTIMISERS) {
    std::vector<float> first;
    for (const unsigned threads : {1U, 2U, 3U, 8U}) {
      KavoEmbeddingOptions options = Defaults(7, optimiser);
      options.threads = threads;
      const Handle embedding = Make(options);
      std::vector<float> rows(NUM * 7);
      for (int step = 0; step < 3; ++step) {
        Must(KavoEmbeddingForward(embedding.get(), keys.data(), NUM, nullptr, rows.data(), nullptr));
        Must(KavoEmbeddingBackward(embedding.get(), keys.data(), NUM, gradients.data(), 0.5F, nullptr));
      }
      std::vector<float> whole(NUM * KavoEmbeddingRowFloats(embedding.get()));
      Must(KavoEmbeddingGetRows(embedding.get(), keys.data(), NUM, whole.data(), nullptr, nullptr));
      if (first.empty()) {
        first = whole;
      }
      EXPECT_TRUE(whole == first) << "optimiser " << optimiser << ", " << threads << " threads";
    }
  }
}

TEST(EmbeddingConcurrent, AForkedChildWorksOnItsOwnThread) {
  KavoEmbeddingOptions options = Defaults(DIM, KAVO_OPTIMISER_SGD);
  options.threads = 3;
  const Handle embedding = Make(options);
  std::vector<long> keys(20000);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    keys[i] = static_cast<long>(i);
  }
  std::vector<float> rows(keys.size() * DIM);
  Must(KavoEmbeddingForward(embedding.get(), keys.data(), keys.size(), nullptr, rows.data(), nullptr));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::vector<float> seen(rows.size());
    const int status = KavoEmbeddingLookup(embedding.get(), keys.data(), keys.size(), KAVO_ABSENT_ZEROS, nullptr,
                                           seen.data(), nullptr);
    const int trained = KavoEmbeddingBackward(embedding.get(), keys.data(), keys.size(), rows.data(), 1, nullptr);
    _exit(status == KAVO_SUCCESS && trained == KAVO_SUCCESS && seen == rows ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
