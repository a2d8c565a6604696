// Many threads on one filter table that grows from eight entries, through the exported functions only.
//
// The oracle, by which no occurrence may be lost or doubled: all threads together offer each key exactly one occurrence
// fewer than admit it, so one that is counted twice admits the key too early; then one more must admit it, and does not
// if one was lost. From then on each key has one value address, and its value is zero or what its key says.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "kavo.h"
#include "support/seed.h"

namespace KavoTest {
namespace {

constexpr unsigned TABLE = 78;
constexpr unsigned LEN = 16;

std::uint64_t Proof(long key) {
  return static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15ULL | 1;
}

struct Workload {
  const char* name;
  unsigned threads;
  std::size_t keys;
  unsigned occurrences;  // that each thread offers of each key, in calls of different weight
};

class FilterStress : public testing::TestWithParam<Workload> {
 protected:
  struct Offered {
    int status;
    unsigned char* address;
  };
  Offered Offer(std::size_t i, unsigned occurrences) {
    unsigned char* address = nullptr;
    unsigned len = 0;
    unsigned isFind = 9;
    const int status = KavoLookupOrInsert(TABLE, m_keys[i], &address, &len, &isFind, occurrences);
    m_failures += status != KAVO_SUCCESS || isFind > 1;
    return {status, address};
  }

  // The threads' share of the occurrences below the threshold, in an order that makes them meet at the same keys.
  void Count(unsigned thread, unsigned long seed) {
    std::mt19937_64 random(seed * 100 + thread);
    std::vector<unsigned> left(m_keys.size(), GetParam().occurrences);
    for (std::size_t first = 0; first < m_keys.size(); first += WINDOW) {
      const std::size_t end = std::min(first + WINDOW, m_keys.size());
      for (bool any = true; any;) {
        any = false;
        for (std::size_t n = first; n < end; ++n) {
          const std::size_t i = first + random() % (end - first);
          const unsigned occurrences = static_cast<unsigned>(std::min<std::uint64_t>(left[i], 1 + random() % 3));
          if (occurrences != 0) {
            left[i] -= occurrences;
            m_admittedEarly += Offer(i, occurrences).address != nullptr;
          }
          any = any || left[n] != 0;
        }
      }
    }
  }

  void Admit(unsigned thread, unsigned long seed) {
    std::mt19937_64 random(seed * 100 + 50 + thread);
    for (std::size_t n = 0; n < m_keys.size(); ++n) {
      See(n, Offer(n, 1).address, true);
      const std::size_t i = random() % m_keys.size();
      unsigned char* address = nullptr;
      unsigned len = 0;
      const bool known = m_addresses[i].load() != nullptr;
      m_failures += KavoLookup(TABLE, m_keys[i], &address, &len) != KAVO_SUCCESS;
      See(i, address, known);
    }
  }

  void See(std::size_t i, unsigned char* address, bool mustBeAdmitted) {
    if (address == nullptr) {
      m_notAdmitted += mustBeAdmitted;
      return;
    }
    unsigned char* expected = nullptr;
    m_failures += !m_addresses[i].compare_exchange_strong(expected, address) && expected != address;
    std::atomic_ref<std::uint64_t> proof(*reinterpret_cast<std::uint64_t*>(address));
    std::uint64_t mark = 0;
    m_failures += !proof.compare_exchange_strong(mark, Proof(m_keys[i])) && mark != Proof(m_keys[i]);
  }

  template <class Work>
  void OnThreads(Work work) {
    std::barrier start(static_cast<std::ptrdiff_t>(GetParam().threads));
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < GetParam().threads; ++t) {
      threads.emplace_back([&, t] {
        start.arrive_and_wait();
        work(t);
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  static constexpr std::size_t WINDOW = 32;
  std::vector<long> m_keys;
  std::vector<std::atomic<unsigned char*>> m_addresses;
  std::atomic<unsigned> m_failures{0};
  std::atomic<unsigned> m_admittedEarly{0};
  std::atomic<unsigned> m_notAdmitted{0};
};

TEST_P(FilterStress, EveryOccurrenceCountsOnceAndEveryKeyHasOneValue) {
  const Workload& workload = GetParam();
  const unsigned long seed = TestSeed();
  std::mt19937_64 random(seed);
  for (std::size_t i = 0; i < workload.keys; ++i) {
    m_keys.push_back(i % 16 == 0 ? static_cast<long>(i << 20) : static_cast<long>(random() >> 2));
  }
  m_addresses = std::vector<std::atomic<unsigned char*>>(workload.keys);
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, 8, LEN, KAVO_TABLE_TYPE_FILTER));
  ASSERT_EQ(KAVO_SUCCESS,
            KavoSetRehashMode(TABLE, workload.threads % 4 == 0 ? KAVO_REHASH_GRADUAL : KAVO_REHASH_WHOLE_TABLE));
  ASSERT_EQ(KAVO_SUCCESS, KavoSetFilterFreq(TABLE, workload.threads * workload.occurrences + 1));
  OnThreads([&](unsigned thread) { Count(thread, seed); });
  EXPECT_EQ(0U, m_admittedEarly.load());
  OnThreads([&](unsigned thread) { Admit(thread, seed); });
  EXPECT_EQ(0U, m_notAdmitted.load());
  EXPECT_EQ(0U, m_failures.load());
  std::vector<unsigned char*> addresses(m_addresses.begin(), m_addresses.end());
  std::sort(addresses.begin(), addresses.end());
  EXPECT_EQ(addresses.end(), std::adjacent_find(addresses.begin(), addresses.end())) << "a value of two keys";
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE));
}

INSTANTIATE_TEST_SUITE_P(Threads, FilterStress,
                         testing::Values(Workload{"One", 1, 5'000, 10}, Workload{"Two", 2, 10'000, 12},
                                         Workload{"Four", 4, 10'000, 12}, Workload{"Eight", 8, 5'000, 12},
                                         Workload{"FourOnHotKeys", 4, 8, 20'000}),
                         [](const auto& param) { return std::string(param.param.name); });

// Each key is admitted while many threads offer it, by the occurrence that is due, over and over.
TEST(FilterAdmission, ManyThreadsAtTheThresholdOfOneKeyGetOneValue) {
  constexpr unsigned THREADS = 4;
  constexpr long KEYS = 3'000;
  const unsigned long seed = TestSeed();
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, 8, LEN, KAVO_TABLE_TYPE_FILTER));
  ASSERT_EQ(KAVO_SUCCESS, KavoSetFilterFreq(TABLE, THREADS));
  std::vector<std::array<unsigned char*, THREADS>> seen(KEYS);
  std::atomic<unsigned> failures{0};
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < THREADS; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937_64 random(seed + t);
      for (long key = 0; key < KEYS; ++key) {
        unsigned len = 0;
        unsigned isFind = 9;
        auto& address = seen[static_cast<std::size_t>(key)][t];
        failures += KavoLookupOrInsert(TABLE, key, &address, &len, &isFind, 1) != KAVO_SUCCESS;
        if (random() % 8 == 0) {
          std::this_thread::yield();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(0U, failures.load());
  for (long key = 0; key < KEYS; ++key) {
    unsigned char* address = nullptr;
    unsigned len = 0;
    ASSERT_EQ(KAVO_SUCCESS, KavoLookup(TABLE, key, &address, &len));
    ASSERT_NE(nullptr, address) << "the last of the four occurrences admits " << key;
    bool anyone = false;
    for (unsigned char* const one : seen[static_cast<std::size_t>(key)]) {
      ASSERT_TRUE(one == nullptr || one == address) << key;
      anyone = anyone || one != nullptr;
    }
    ASSERT_TRUE(anyone) << "the call that admits gets the value";
  }
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE));
}

// Readers compare whole values with plain reads while keys are being inserted, which ThreadSanitizer watches.
class NewKeys : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Types, NewKeys, testing::Values(KAVO_TABLE_TYPE_BASIC, KAVO_TABLE_TYPE_FILTER));

TEST_P(NewKeys, AreSeenWithTheirWholeValue) {
  constexpr unsigned BYTES = 256;
  constexpr long KEYS = 6'000;
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, 8, BYTES, GetParam()));
  const KavoLogSink quiet{nullptr, [](void*, unsigned, int, const char*, va_list) {}, nullptr};
  KavoSetLogSink(&quiet);
  std::atomic<unsigned> failures{0};
  const auto byteOf = [](long key) { return static_cast<unsigned char>(key % 255 + 1); };
  const auto insert = [&] {
    std::array<unsigned char, BYTES> value;
    for (long key = 0; key < KEYS; ++key) {
      value.fill(byteOf(key));
      const int ret = KavoInsert(TABLE, key, value.data(), BYTES, 0, 1);
      failures += ret != KAVO_SUCCESS && ret != KAVO_INVALID;
    }
  };
  std::atomic<bool> done{false};
  const auto read = [&] {
    for (long key = 0; !done; ++key) {
      unsigned char* value = nullptr;
      unsigned len = 0;
      if (KavoLookup(TABLE, key % KEYS, &value, &len) == KAVO_SUCCESS) {
        failures += std::count(value, value + BYTES, byteOf(key % KEYS)) != BYTES;
      }
    }
  };
  std::thread reader(read);
  std::thread second(insert);
  insert();
  second.join();
  done = true;
  reader.join();
  EXPECT_EQ(0U, failures.load());
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE));
  KavoSetLogSink(nullptr);
}

}  // namespace
}  // namespace KavoTest
