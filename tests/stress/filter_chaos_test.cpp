// Many short rounds on the smallest filter table, with threads held up at random at the library's test points and
// memory that runs out: what failed admissions and failed records leave behind.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "kavo.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"
#include "support/hold_up.h"
#include "support/seed.h"
#include "table/filter_test_table.h"

namespace KavoTest {
namespace {

thread_local std::mt19937 t_random;

void HoldUp(const char*) {
  HoldUpNowAndThen(t_random, 32, 8, 50);
}

TEST(FilterChaos, FailuresLoseNoOccurrenceAndLeaveNobodyWaiting) {
  constexpr unsigned THREADS = 4;
  constexpr std::size_t KEYS = 12;
  constexpr unsigned ROUNDS = 60;
  constexpr unsigned OFFERS = 60;
  const unsigned long seed = TestSeed();
  const KavoLogSink quiet{nullptr, [](void*, unsigned, int, const char*, va_list) {}, nullptr};
  Qen::SetLogSink(&quiet);
  unsigned failures = 0;
  for (unsigned round = 0; round < ROUNDS; ++round) {
    const FilterTable table(1, 8, 8);
    table.SetFilterFreq(4);
    UseUpStock(table);
    std::array<std::atomic<unsigned>, KEYS> counted{};
    std::array<std::atomic<unsigned>, KEYS> failed{};
    std::array<std::atomic<unsigned char*>, KEYS> blocks{};
    std::atomic<unsigned> wrong{0};
    const auto keyOf = [](std::size_t i) { return static_cast<long>(i % 2 == 0 ? i << 20 : i); };
    const auto offer = [&](std::size_t i, std::uint32_t occurrences) {
      const bool known = blocks[i].load() != nullptr;
      const Answer answer = Offer(table, keyOf(i), occurrences);
      if (answer.status < 0) {
        ++failed[i];
        wrong += answer.block != nullptr;
        return;
      }
      counted[i] += occurrences;
      unsigned char* expected = nullptr;
      if (answer.block == nullptr) {
        wrong += known;
      } else if (!blocks[i].compare_exchange_strong(expected, answer.block)) {
        wrong += expected != answer.block;
      }
    };
    Qen::TestHooks::SetPointHandler(&HoldUp);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < THREADS; ++t) {
      threads.emplace_back([&, t] {
        t_random.seed(static_cast<unsigned>(seed + round * 100 + t));
        for (unsigned n = 0; n < OFFERS; ++n) {
          if (t_random() % 2 == 0) {
            Qen::TestHooks::FailAllocation(1, true);
          }
          offer((n / 8 + t_random() % 2) % KEYS, 1);
          Qen::TestHooks::FailAllocation(0);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    Qen::TestHooks::SetPointHandler(nullptr);
    // All failures are over: no call waits for anything, and every key is admitted.
    Qen::TestHooks::SetWaitLimit(1);
    for (std::size_t i = 0; i < KEYS; ++i) {
      const unsigned before = failed[i];
      failures += before;
      offer(i, 4);
      ASSERT_EQ(before, failed[i].load()) << "round " << round << " key " << keyOf(i);
      ASSERT_NE(nullptr, blocks[i].load()) << "round " << round << " key " << keyOf(i);
      // A call that failed has counted its occurrence if the key had a record by then.
      const std::uint32_t count = CountOf(table, keyOf(i));
      ASSERT_GE(count, counted[i].load()) << "round " << round << " key " << keyOf(i);
      ASSERT_LE(count, counted[i].load() + before) << "round " << round << " key " << keyOf(i);
    }
    Qen::TestHooks::SetWaitLimit(0);
    ASSERT_EQ(0U, wrong.load()) << "round " << round;
  }
  Qen::SetLogSink(nullptr);
  EXPECT_GT(failures, 0U) << "nothing was put to the test";
}

}  // namespace
}  // namespace KavoTest
