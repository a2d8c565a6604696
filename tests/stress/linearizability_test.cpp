// Free-running threads on a few keys of a table that grows from eight entries, in many short rounds. What each call did
// to its key is recorded with the moments of its beginning and its end; afterwards each key's history must be
// linearizable (stress/history.h).
//
// The calls that copy bytes over a value (KavoUpdate, KavoInsertOrUpdate) exclude the accesses through its address, as
// callers must; nothing else is held up for them.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <random>
#include <shared_mutex>
#include <span>
#include <tuple>
#include <vector>

#include "kavo.hpp"
#include "platform/test_hooks.h"
#include "stress/history.h"
#include "support/seed.h"
#include "support/threads.h"

namespace KavoTest {
namespace {

constexpr unsigned TABLE = 79;
constexpr std::size_t WINDOW = 4;  // keys that all threads are at, at about the same time
constexpr std::size_t WINDOWS = 6;
constexpr std::size_t KEYS = WINDOW * WINDOWS;
constexpr unsigned STEPS = 16;  // of a thread in a window

thread_local std::mt19937_64 t_random;

void HoldUp(const char*) {
  HoldUpNowAndThen(t_random, 256, 4, 20);
}

std::atomic_ref<std::uint64_t> Word(std::uint64_t* address) {
  return std::atomic_ref<std::uint64_t>(*address);
}

class Round {
 public:
  Round(kavo::RehashMode mode, unsigned threads, std::mt19937_64& random) : m_logs(threads + 1), m_others(threads) {
    m_table.SetRehashMode(mode);
    for (std::size_t i = 0; i < KEYS; ++i) {
      // Every other one in the bucket of the one before.
      m_keys[i] = i % 2 == 0 ? static_cast<long>(random() >> 2) : m_keys[i - 1] ^ (1L << 40);
    }
  }

  void Work(unsigned thread) {
    for (std::size_t window = 0; window < WINDOWS; ++window) {
      for (unsigned step = 0; step < STEPS; ++step) {
        const std::size_t at = t_random() % 4 != 0 ? window : t_random() % (window + 1);
        Call(thread, at * WINDOW + t_random() % WINDOW, static_cast<unsigned>(t_random() % 16));
        InsertOthers(thread, window);
      }
    }
  }

  unsigned long long Growths() const { return m_table.Stats().growths; }

  // When all threads have ended.
  void Check() {
    for (std::size_t i = 0; i < KEYS; ++i) {
      Call(static_cast<unsigned>(m_logs.size() - 1), i, LOOKUP);
    }
    std::array<History, KEYS> histories;
    for (const Log& log : m_logs) {
      for (const auto& [i, operation] : log) {
        histories[i].push_back(operation);
      }
    }
    CheckOthers();
    for (History& history : histories) {
      std::sort(history.begin(), history.end(),
                [](const Operation& a, const Operation& b) { return a.invoked < b.invoked; });
      ASSERT_TRUE(Linearization::Exists(history)) << testing::PrintToString(history);
    }
  }

 private:
  using Kind = Operation::Kind;
  using Log = std::vector<std::pair<std::size_t, Operation>>;
  static constexpr unsigned LOOKUP = 15;

  // A call that ended with a smaller stamp than another began with happened before it, as the memory model has it.
  std::uint64_t Now() { return m_clock.fetch_add(1, std::memory_order_acq_rel); }

  void Call(unsigned thread, std::size_t i, unsigned dice) {
    Log& log = m_logs[thread];
    const std::uint64_t id = (static_cast<std::uint64_t>(thread) << 32 | log.size()) + 1;  // never written twice
    const std::span row(&id, 1);
    const long key = m_keys[i];
    std::unique_lock<std::shared_mutex> copying(m_values[i], std::defer_lock);
    if (dice < 4) {
      copying.lock();
    }
    Operation operation{Kind::ABSENT, id, Now(), 0};
    const auto ended = [&](Kind kind) {
      operation.responded = Now();
      operation.kind = kind;
    };
    if (dice < 3) {
      m_table.InsertOrUpdate(key, row);
      ended(Kind::PUT);
    } else if (dice == 3) {
      ended(m_table.TryUpdate(key, row) ? Kind::WRITE : Kind::ABSENT);
    } else if (dice < 7) {
      ended(m_table.TryInsert(key, row) ? Kind::CREATE : Kind::REFUSED);
    } else if (dice < 9) {
      const auto found = m_table.TryLookupForUpdate<std::uint64_t>(key);
      ended(found ? Kind::WRITE : Kind::ABSENT);
      if (found) {
        const std::shared_lock<std::shared_mutex> accessing(m_values[i]);
        Word(found->data()).store(id, std::memory_order_relaxed);
        operation.responded = Now();
      }
    } else {
      kavo::FoundOrNew<std::uint64_t> found{};
      if (dice < 12) {
        found = m_table.LookupOrInsert<std::uint64_t>(key);
      } else if (const auto present = m_table.TryLookup<std::uint64_t>(key)) {
        found.row = *present;
      }
      ended(found.created ? Kind::CREATE : found.row ? Kind::READ : Kind::ABSENT);
      operation.value = 0;
      if (found.row && !found.created) {
        const std::shared_lock<std::shared_mutex> accessing(m_values[i]);
        operation.value = Word(found.row.data()).load(std::memory_order_relaxed);
        operation.responded = Now();
      }
    }
    log.emplace_back(i, operation);
  }

  // What makes the table grow, a part of it in a bucket that is looked at.
  void InsertOthers(unsigned thread, std::size_t window) {
    for (unsigned n = 0; n < 2; ++n) {
      const bool near = t_random() % 4 == 0;
      long key = static_cast<long>(near ? t_random() >> 34 << 32 : t_random() >> 2);
      key |= near ? m_keys[window * WINDOW] & 0xFFFFFFFF : 0;
      if (m_table.TryInsert(key, std::span(&key, 1))) {
        m_others[thread].push_back(key);
      }
    }
  }

  void CheckOthers() const {
    for (const std::vector<long>& keys : m_others) {
      ASSERT_GT(keys.size(), std::size_t{WINDOWS * STEPS});
      for (const long key : keys) {
        ASSERT_EQ(key, m_table.Lookup<long>(key)[0]);
      }
    }
  }

  const kavo::Table m_table{TABLE, 8, sizeof(std::uint64_t)};
  std::array<long, KEYS> m_keys{};
  std::array<std::shared_mutex, KEYS> m_values;
  std::vector<Log> m_logs;  // by thread
  std::vector<std::vector<long>> m_others;
  std::atomic<std::uint64_t> m_clock{1};
};

class Linearizability : public testing::TestWithParam<std::tuple<kavo::RehashMode, bool>> {};

TEST_P(Linearizability, EachKeysHistoryHasAnOrderThatExplainsIt) {
  const auto [mode, heldUp] = GetParam();
  const unsigned threads = heldUp ? 8 : 4;
  const unsigned rounds = heldUp ? 60 : 500;
  const unsigned long seed = TestSeed();
  std::mt19937_64 random(seed);
  unsigned long long growths = 0;
  const kavo::LogSink quiet([](const kavo::LogLine&) {});
  Qen::TestHooks::SetPointHandler(heldUp ? &HoldUp : nullptr);
  for (unsigned n = 0; n < rounds && !HasFailure(); ++n) {
    SCOPED_TRACE(testing::Message() << "round " << n);
    Round round(mode, threads, random);
    InThreads(threads, [&](unsigned thread) {
      t_random.seed(seed + 1 + n * threads + thread);
      round.Work(thread);
    });
    round.Check();
    growths += round.Growths();
  }
  Qen::TestHooks::SetPointHandler(nullptr);
  if (!HasFailure()) {
    EXPECT_GT(growths, rounds * 4) << "the tables hardly grew";
  }
}

INSTANTIATE_TEST_SUITE_P(ModesAndHoldUps, Linearizability,
                         testing::Combine(testing::Values(kavo::RehashMode::WHOLE_TABLE, kavo::RehashMode::GRADUAL),
                                          testing::Bool()));

}  // namespace
}  // namespace KavoTest
