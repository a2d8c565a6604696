// Many threads on one table that grows from eight entries, through the exported functions only.
//
// The oracle: each key has one creator and one address; a key that any thread has seen completed is found from then on,
// at that address; a value is zero or what its key says, never another key's.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kavo.h"
#include "support/seed.h"

namespace KavoTest {
namespace {

constexpr unsigned TABLE = 77;
constexpr unsigned VALUE_LEN = 24;  // creator's mark, key, scribble

std::uint64_t Proof(long key) {
  return static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15ULL | 1;
}

struct Workload {
  const char* name;
  long keys;
  unsigned threads;
  unsigned growths;  // at least
  long (*key)(long i, std::mt19937_64& random);
};

long Dense(long i, std::mt19937_64&) {
  return i;
}
long Random(long, std::mt19937_64& random) {
  return static_cast<long>(random() >> 2);
}
long EqualLowBits(long i, std::mt19937_64&) {
  return (i << 32) + 5;
}
long Multiples(long i, std::mt19937_64&) {
  return i << 20;
}
long Mixed(long i, std::mt19937_64& random) {
  return i % 8 == 0 ? EqualLowBits(i, random) : i % 8 == 1 ? Multiples(i, random) : Random(i, random);
}

// Lines from the log: counts the generations left, and keeps what must not appear.
struct Lines {
  std::atomic<unsigned> growths{0};
  std::atomic<unsigned> unexpected{0};
  static int Enabled(void*, unsigned, int) { return 1; }
  static void Write(void* context, unsigned, int level, const char* format, va_list) {
    Lines& lines = *static_cast<Lines*>(context);
    const std::string text(format);
    if (text.find("is deleted, root is") != std::string::npos) {
      ++lines.growths;
    } else if (level >= KAVO_LOG_LEVEL_ERROR && text.find("key is not exist in map!") == std::string::npos &&
               text.find("LookUpWithValLen failed") == std::string::npos) {
      ++lines.unexpected;
    }
  }
};

class TableStress : public ::testing::TestWithParam<std::tuple<unsigned, Workload>> {
 protected:
  void Work(unsigned thread, unsigned long seed) {
    std::mt19937_64 random(seed * 1000 + thread);
    std::vector<std::size_t> order(m_keys.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
      order[i] = i;
    }
    // Threads meet at the same keys at about the same time: each shuffles within a window only.
    for (std::size_t first = 0; first < order.size(); first += 64) {
      std::shuffle(order.begin() + static_cast<long>(first),
                   order.begin() + static_cast<long>(std::min(first + 64, order.size())), random);
    }
    for (std::size_t n = 0; n < order.size(); ++n) {
      Offer(order[n]);
      Check(order[random() % (n + 1)]);
      Check(random() % m_keys.size());
    }
  }

  void Offer(std::size_t i) {
    unsigned char* value = nullptr;
    unsigned length = 0;
    unsigned isFind = 9;
    if (KavoLookupOrInsert(TABLE, m_keys[i], &value, &length, &isFind, 0) != KAVO_SUCCESS || value == nullptr ||
        length != VALUE_LEN || isFind > 1) {
      ++m_failures;
      return;
    }
    m_creators[i] += isFind == 0;
    std::atomic_ref<std::uint64_t> proof(*reinterpret_cast<std::uint64_t*>(value));
    if (isFind == 0) {
      m_failures += proof.load(std::memory_order_relaxed) != 0;
      proof.store(Proof(m_keys[i]), std::memory_order_relaxed);
    }
    unsigned char* expected = nullptr;
    if (!m_addresses[i].compare_exchange_strong(expected, value) && expected != value) {
      ++m_failures;
    }
  }

  void Check(std::size_t i) {
    unsigned char* const known = m_addresses[i].load();
    unsigned char* value = nullptr;
    unsigned length = 0;
    const int ret = KavoLookup(TABLE, m_keys[i], &value, &length);
    if (known != nullptr && (ret != KAVO_SUCCESS || value != known)) {
      ++m_failures;
    }
    if (ret == KAVO_SUCCESS) {
      const std::uint64_t proof =
          std::atomic_ref<std::uint64_t>(*reinterpret_cast<std::uint64_t*>(value)).load(std::memory_order_relaxed);
      m_failures += proof != 0 && proof != Proof(m_keys[i]);
    }
  }

  std::vector<long> m_keys;
  std::unique_ptr<std::atomic<unsigned char*>[]> m_addresses;
  std::unique_ptr<std::atomic<unsigned>[]> m_creators;
  std::atomic<unsigned> m_failures{0};
};

TEST_P(TableStress, OneCreatorOneAddressAndNoLostEntry) {
  const auto& [mode, workload] = GetParam();
  const unsigned long seed = TestSeed();
  std::mt19937_64 random(seed);
  for (long i = 0; i < workload.keys; ++i) {
    m_keys.push_back(workload.key(i, random));
  }
  m_addresses.reset(new std::atomic<unsigned char*>[m_keys.size()]());
  m_creators.reset(new std::atomic<unsigned>[m_keys.size()]());
  Lines lines;
  const KavoLogSink sink{&Lines::Enabled, &Lines::Write, &lines};
  ASSERT_EQ(KavoSetLogSink(&sink), KAVO_SUCCESS);
  ASSERT_EQ(KavoInitHashTable(TABLE, 8, VALUE_LEN, KAVO_TABLE_TYPE_BASIC), KAVO_SUCCESS);
  ASSERT_EQ(KavoSetRehashMode(TABLE, mode), KAVO_SUCCESS);
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < workload.threads; ++t) {
    threads.emplace_back([this, t, seed] { Work(t, seed); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(m_failures.load(), 0U);
  for (std::size_t i = 0; i < m_keys.size(); ++i) {
    ASSERT_EQ(m_creators[i].load(), 1U) << m_keys[i];
    Check(i);
  }
  EXPECT_EQ(m_failures.load(), 0U);
  EXPECT_GE(lines.growths.load(), workload.growths);
  EXPECT_EQ(lines.unexpected.load(), 0U);
  EXPECT_EQ(KavoUninitHashTable(TABLE), KAVO_SUCCESS);
  KavoSetLogSink(nullptr);
}

// Keys of one bucket stop a table's growth at 2,048 cells, which may have one map.
INSTANTIATE_TEST_SUITE_P(Keys, TableStress,
                         ::testing::Combine(::testing::Values(KAVO_REHASH_GRADUAL, KAVO_REHASH_WHOLE_TABLE),
                                            ::testing::Values(Workload{"Dense", 40'000, 4, 10, Dense},
                                                              Workload{"Random", 40'000, 4, 10, Random},
                                                              Workload{"RandomEightThreads", 20'000, 8, 10, Random},
                                                              Workload{"EqualLowBits", 2'500, 4, 7, EqualLowBits},
                                                              Workload{"MultiplesOfAMillion", 2'500, 4, 7, Multiples},
                                                              Workload{"Mixed", 8'000, 4, 10, Mixed})),
                         [](const auto& param) {
                           return std::get<1>(param.param).name +
                                  std::string(std::get<0>(param.param) == KAVO_REHASH_GRADUAL ? "Gradual" : "");
                         });

// Each thread owns a share of the keys, so that every answer is known beforehand; all share the buckets and the growth.
class OwnedKeys : public ::testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Modes, OwnedKeys, ::testing::Values(KAVO_REHASH_GRADUAL, KAVO_REHASH_WHOLE_TABLE));

TEST_P(OwnedKeys, EveryAnswerIsTheOneASingleThreadWouldGet) {
  constexpr unsigned THREADS = 4;
  constexpr long KEYS = 6'000;
  const unsigned long seed = TestSeed();
  const KavoLogSink quiet{nullptr, [](void*, unsigned, int, const char*, va_list) {}, nullptr};
  KavoSetLogSink(&quiet);
  ASSERT_EQ(KavoInitHashTable(TABLE, 8, VALUE_LEN, KAVO_TABLE_TYPE_BASIC), KAVO_SUCCESS);
  ASSERT_EQ(KavoSetRehashMode(TABLE, GetParam()), KAVO_SUCCESS);
  std::atomic<unsigned> failures{0};
  const auto work = [&](unsigned thread) {
    std::mt19937_64 random(seed + thread);
    std::vector<std::uint64_t> held(KEYS, 0);  // what the table should hold; 0 for absent
    const auto expect = [&](bool right) { failures += !right; };
    for (long n = 0; n < KEYS * 6; ++n) {
      const long i = static_cast<long>(random() % KEYS);
      const long key = i * THREADS + thread;
      std::uint64_t& expected = held[static_cast<std::size_t>(i)];
      std::uint64_t value[3] = {random() | 1, static_cast<std::uint64_t>(key), 0};
      auto* const bytes = reinterpret_cast<unsigned char*>(value);
      unsigned char* found = nullptr;
      unsigned length = 0;
      switch (random() % 5) {
        case 0:
          expect(KavoInsert(TABLE, key, bytes, VALUE_LEN, 0, 0) == (expected == 0 ? KAVO_SUCCESS : KAVO_INVALID));
          expected = expected == 0 ? value[0] : expected;
          break;
        case 1:
          expect(KavoInsertOrUpdate(TABLE, key, bytes, VALUE_LEN, 0) == KAVO_SUCCESS);
          expected = value[0];
          break;
        case 2:
          expect(KavoUpdate(TABLE, key, bytes, VALUE_LEN) == (expected == 0 ? KAVO_INVALID : KAVO_SUCCESS));
          expected = expected == 0 ? expected : value[0];
          break;
        case 3:
          expect(KavoLookupForUpdate(TABLE, key, &found, &length) == (expected == 0 ? KAVO_INVALID : KAVO_SUCCESS));
          break;
        default:
          expect(KavoLookup(TABLE, key, &found, &length) == (expected == 0 ? KAVO_INVALID : KAVO_SUCCESS));
      }
      if (found != nullptr) {
        const auto* words = reinterpret_cast<const std::uint64_t*>(found);
        expect(words[0] == expected && words[1] == static_cast<std::uint64_t>(key));
      }
    }
  };
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < THREADS; ++t) {
    threads.emplace_back(work, t);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures.load(), 0U);
  EXPECT_EQ(KavoUninitHashTable(TABLE), KAVO_SUCCESS);
  KavoSetLogSink(nullptr);
}

}  // namespace
}  // namespace KavoTest
