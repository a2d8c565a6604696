// Many short rounds on the smallest tables, with threads held up at random at the library's test points, blocks that
// cannot be had and memory that runs out: the rare interleavings, and what failures leave behind.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <random>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <vector>

#include "hash/test_table.h"
#include "platform/log_sink.h"
#include "support/hold_up.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace KavoTest {
namespace {

thread_local std::mt19937 t_random;

void HoldUp(const char*) {
  HoldUpNowAndThen(t_random, 64, 8, 50);
}

struct Hazards {
  unsigned blockFails;       // of 100 new keys
  unsigned callbackThrows;   // of 100 new keys
  unsigned allocationFails;  // of 100 offers
};

class Chaos : public ::testing::TestWithParam<std::tuple<unsigned char, Hazards>> {};

TEST_P(Chaos, PromisesHoldWhateverFails) {
  constexpr unsigned THREADS = 4;
  constexpr std::size_t KEYS = 48;
  constexpr unsigned ROUNDS = 150;
  const unsigned char mode = std::get<0>(GetParam());
  const unsigned long seed = TestSeed();
  const KavoLogSink quiet{nullptr, [](void*, unsigned, int, const char*, va_list) {}, nullptr};
  Qen::SetLogSink(&quiet);
  Qen::TestHooks::SetPointHandler(&HoldUp);
  const long long heap = Qen::TestHooks::HeapBytesInUse();
  for (unsigned round = 0; round < ROUNDS; ++round) {
    TestTable table;
    table.SetRehashType(mode);
    std::array<std::atomic<unsigned char*>, KEYS> blocks{};
    std::array<std::atomic<unsigned>, KEYS> creators{};
    std::atomic<unsigned> wrong{0};
    // Few buckets in the first generations, some in all.
    const auto keyOf = [](std::size_t i) {
      return static_cast<long>(i % 3 == 0 ? i << 20 : i % 3 == 1 ? i * 8 : 1000 + i);
    };
    const auto offer = [&](std::size_t i, const Hazards& now) {
      unsigned char* block = nullptr;
      bool created = false;
      int status = KAVO_FAILED;
      if (t_random() % 100 < now.allocationFails) {
        Qen::TestHooks::FailAllocation(1 + t_random() % 3);
      }
      try {
        status = table.InsertOrFind(
            keyOf(i),
            [&](Qen::HashValue& record) {
              const unsigned dice = static_cast<unsigned>(t_random() % 100);
              if (dice < now.callbackThrows) {
                throw std::runtime_error("block");
              }
              if (dice < now.callbackThrows + now.blockFails) {
                return KAVO_NO_MEMORY;
              }
              created = true;
              block = table.AttachNew(record);
              return 0;
            },
            [&](unsigned char& found) {
              block = &found;
              return 0;
            });
      } catch (const std::runtime_error&) {
        status = KAVO_NO_MEMORY;
      }
      Qen::TestHooks::FailAllocation(0);
      wrong += created != (status == Qen::ENTRY_INSERTED);
      if (status >= 0) {
        creators[i] += created;
        unsigned char* expected = nullptr;
        if (!blocks[i].compare_exchange_strong(expected, block) && expected != block) {
          ++wrong;
        }
      }
      return status;
    };
    const auto check = [&](std::size_t i) {
      unsigned char* const known = blocks[i].load();
      unsigned char* const seen = table.BlockOf(keyOf(i));
      wrong += known != nullptr && seen != known;
    };
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < THREADS; ++t) {
      threads.emplace_back([&, t] {
        t_random.seed(static_cast<unsigned>(seed + round * 100 + t));
        for (std::size_t n = 0; n < KEYS; ++n) {
          offer((n + t_random() % 4) % KEYS, std::get<1>(GetParam()));
          check(t_random() % KEYS);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    // All failures are over: every key can be had, at once.
    Qen::TestHooks::SetWaitLimit(1);
    for (std::size_t i = 0; i < KEYS; ++i) {
      ASSERT_GE(offer(i, Hazards{0, 0, 0}), 0) << "round " << round << " key " << keyOf(i);
      check(i);
      ASSERT_EQ(creators[i].load(), 1U) << "round " << round << " key " << keyOf(i);
    }
    Qen::TestHooks::SetWaitLimit(0);
    ASSERT_EQ(wrong.load(), 0U) << "round " << round;
  }
  Qen::TestHooks::SetPointHandler(nullptr);
  Qen::SetLogSink(nullptr);
  EXPECT_EQ(Qen::TestHooks::HeapBytesInUse(), heap);
}

INSTANTIATE_TEST_SUITE_P(Hazards, Chaos,
                         ::testing::Combine(::testing::Values(Qen::REHASH_GRADUAL, Qen::REHASH_WHOLE_TABLE),
                                            ::testing::Values(Hazards{0, 0, 0}, Hazards{20, 0, 0}, Hazards{10, 10, 0},
                                                              Hazards{5, 5, 20})),
                         [](const auto& param) { return "Set" + std::to_string(param.index); });

}  // namespace
}  // namespace KavoTest
