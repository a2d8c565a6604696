// Many short rounds on the smallest tables of both kinds, with threads held up at random at the library's test points
// and memory that runs out: the rare interleavings, and what failures leave behind.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <map>
#include <random>
#include <tuple>

#include "kavo.hpp"
#include "platform/test_hooks.h"
#include "support/held.h"
#include "support/seed.h"
#include "support/threads.h"

namespace KavoTest {
namespace {

namespace Hooks = Qen::TestHooks;

constexpr unsigned TABLE = 80;
constexpr unsigned LEN = 40'000;  // so that few values fit into what is asked from the system at once
constexpr unsigned FREQUENCY = 5;
constexpr unsigned THREADS = 4;
constexpr std::size_t KEYS = 48;

thread_local std::mt19937 t_dice;

class ChaosRound {
 public:
  ChaosRound(kavo::TableType type, kavo::RehashMode mode, unsigned failing)
      : m_isFilter(type == kavo::TableType::FILTER), m_failing(failing), m_table(TABLE, 8, LEN, type) {
    m_table.SetRehashMode(mode);
    if (m_isFilter) {
      m_table.SetFilterFrequency(FREQUENCY);
    }
  }

  void Work() {
    for (std::size_t n = 0; n < 2 * KEYS; ++n) {
      if (t_dice() % 100 < m_failing) {
        Hooks::FailAllocation(1 + t_dice() % 3, t_dice() % 2 == 0);
      }
      // Threads meet at the same keys.
      Offer((n / 2 + t_dice() % 4) % KEYS, 1);
      Hooks::FailAllocation(0);
      LookUp(t_dice() % KEYS);
    }
  }

  // When all threads have ended and all failures are over: no call waits for anything, and every key can be had.
  unsigned Check() {
    unsigned failures = 0;
    Hooks::SetWaitLimit(1);
    for (std::size_t i = 0; i < KEYS; ++i) {
      const unsigned before = m_keys[i].failed;
      failures += before;
      Offer(i, FREQUENCY);
      EXPECT_EQ(before, m_keys[i].failed) << KeyOf(i);
      EXPECT_NE(nullptr, m_keys[i].value.load()) << KeyOf(i);
      EXPECT_LE(m_keys[i].creators, 1U) << KeyOf(i);
      EXPECT_TRUE(m_isFilter || m_keys[i].creators == 1) << KeyOf(i);
      LookUp(i);
    }
    Hooks::SetWaitLimit(0);
    std::map<const unsigned char*, unsigned> counts;
    for (const KavoHtBatchElement& entry : m_table.Export(kavo::ExportMode::ALL)) {
      counts.emplace(entry.value, entry.count);
    }
    EXPECT_EQ(KEYS, counts.size());
    for (const Key& key : m_keys) {
      // A call that failed has counted its occurrences if the key had a record by then.
      const unsigned count = counts[key.value];
      EXPECT_TRUE(!m_isFilter || (count >= key.counted && count <= key.counted + key.failed));
    }
    EXPECT_EQ(0U, m_wrong.load());
    return failures;
  }

 private:
  struct Key {
    std::atomic<unsigned char*> value{nullptr};
    std::atomic<unsigned> counted{0};  // occurrences
    std::atomic<unsigned> failed{0};
    std::atomic<unsigned> creators{0};
  };

  // Few buckets in the first generations, some in all.
  static long KeyOf(std::size_t i) { return static_cast<long>(i % 3 == 0 ? i << 20 : i % 3 == 1 ? i * 8 : 1000 + i); }

  void Offer(std::size_t i, unsigned occurrences) {
    Key& key = m_keys[i];
    const bool known = key.value != nullptr;
    unsigned char* value = nullptr;
    unsigned length = 0;
    unsigned isFind = 9;
    const int status = KavoLookupOrInsert(TABLE, KeyOf(i), &value, &length, &isFind, occurrences);
    if (status != KAVO_SUCCESS) {
      key.failed += occurrences;
      m_wrong += m_failing == 0 || value != nullptr || isFind != 9;
      return;
    }
    key.counted += occurrences;
    key.creators += isFind == 0;
    m_wrong += value == nullptr && (known || !m_isFilter);
    unsigned char* expected = nullptr;
    m_wrong += value != nullptr && !key.value.compare_exchange_strong(expected, value) && expected != value;
  }

  void LookUp(std::size_t i) {
    const unsigned char* const known = m_keys[i].value;
    const auto row = m_table.TryLookup(KeyOf(i));
    m_wrong += known != nullptr && (!row || row->data() != known);
  }

  const bool m_isFilter;
  const unsigned m_failing;  // of 100 offers
  const kavo::Table m_table;
  std::array<Key, KEYS> m_keys;
  std::atomic<unsigned> m_wrong{0};
};

class Chaos : public testing::TestWithParam<std::tuple<kavo::TableType, kavo::RehashMode, unsigned>> {};

TEST_P(Chaos, PromisesHoldWhateverFails) {
  const auto [type, mode, failing] = GetParam();
  const unsigned long seed = TestSeed();
  const kavo::LogSink quiet([](const kavo::LogLine&) {});
  const Held before;
  unsigned failures = 0;
  for (unsigned n = 0; n < 100 && !HasFailure(); ++n) {
    SCOPED_TRACE(testing::Message() << "round " << n);
    ChaosRound round(type, mode, failing);
    Hooks::SetPointHandler([](const char*) { HoldUpNowAndThen(t_dice, 64, 8, 50); });
    InThreads(THREADS, [&round, seed, n](unsigned thread) {
      t_dice.seed(static_cast<unsigned>(seed + n * 100 + thread));
      round.Work();
    });
    Hooks::SetPointHandler(nullptr);
    failures += round.Check();
  }
  EXPECT_EQ(failing != 0, failures != 0);
  EXPECT_EQ(before, Held());
}

INSTANTIATE_TEST_SUITE_P(All, Chaos,
                         testing::Combine(testing::Values(kavo::TableType::BASIC, kavo::TableType::FILTER),
                                          testing::Values(kavo::RehashMode::WHOLE_TABLE, kavo::RehashMode::GRADUAL),
                                          testing::Values(0U, 30U)));

}  // namespace
}  // namespace KavoTest
