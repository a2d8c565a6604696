// One place of the soak: a table, what it must hold, and the calls that threads make on it. When the table has as many
// keys as it is to have, it is checked as a whole, destroyed, and another of a different shape takes its place.
//
// Each key belongs to one thread, whose CallRunner makes every kind of call on it and knows the answer; keys of all
// threads share buckets. (Calls of several threads on one key are for the explorer, the chaos and the histories.)
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "kavo.hpp"
#include "model/call_runner.h"

namespace KavoTest {

using Random = std::mt19937_64;

struct SoakTotals {
  std::atomic<unsigned long long> calls{0};
  std::atomic<unsigned long long> tables{0};
  std::atomic<unsigned long long> growths{0};
  std::atomic<unsigned> mismatches{0};
};

class SoakTable {
 public:
  // At most about `keys`.
  SoakTable(unsigned place, unsigned threads, std::size_t keys, SoakTotals& totals)
      : m_place(place), m_keys(keys), m_totals(totals), m_runners(threads) {}
  SoakTable(const SoakTable&) = delete;
  SoakTable& operator=(const SoakTable&) = delete;

  // Some calls, or one that concerns the table as a whole. Throws Mismatch.
  void Visit(unsigned thread, Random& random) {
    {
      const std::shared_lock<std::shared_mutex> life(m_life);
      if (m_alive && !m_full) {
        const unsigned dice = static_cast<unsigned>(random() % 64);
        if (dice < 40) {
          const std::shared_lock<std::shared_mutex> inserting(m_inserting);
          Work(thread, true, random);
        } else if (dice < 60) {
          Work(thread, false, random);
        } else if (dice == 60) {
          WalkBesideInserts();
        } else if (const std::unique_lock<std::shared_mutex> alone(m_inserting, std::try_to_lock); alone.owns_lock()) {
          ExpectEqual(KavoSetRehashMode(m_id, AnyMode(random)), KAVO_SUCCESS, "status of the rehash mode");
          CheckSize();
        }
        return;
      }
    }
    const std::unique_lock<std::shared_mutex> life(m_life, std::try_to_lock);
    if (life.owns_lock() && m_alive && m_full) {
      End();
    } else if (life.owns_lock() && !m_alive) {
      Begin(random);
    }
  }

  // Checks and destroys the table, when no thread visits it any more: one model has all that the threads know, and is
  // compared with the whole table, exports in every mode included.
  void End() {
    if (!std::exchange(m_alive, false)) {
      return;
    }
    ModelTable whole = m_shape;
    for (std::unique_ptr<CallRunner>& runner : m_runners) {
      whole.entries.merge(EntriesOf(*runner));
      runner.reset();
    }
    for (auto& [key, entry] : whole.entries) {
      unsigned char* unknown = nullptr;
      if (entry.address != nullptr) {
        whole.CheckAddress(key, unknown, entry.address);
      }
    }
    KavoTableStats stats{};
    stats.size = sizeof(stats);
    ExpectEqual(KavoGetTableStats(m_id, &stats), KAVO_SUCCESS, "status of the statistics");
    Expect(stats.generations >= 1 && stats.valueBytes >= whole.addresses.size() * m_shape.valueLen, "value bytes are ",
           stats.valueBytes);
    m_totals.growths += stats.growths;
    CallRunner(m_id, std::move(whole), 0, 1).Finish();
    unsigned char* address = nullptr;
    unsigned length = 0;
    ExpectEqual(KavoLookup(m_id, 0, &address, &length), KAVO_INVALID, "status after the end");
    ++m_totals.tables;
  }

 private:
  static constexpr std::size_t BATCH = 80;

  static unsigned AnyMode(Random& random) { return random() % 2 == 0 ? KAVO_REHASH_GRADUAL : KAVO_REHASH_WHOLE_TABLE; }

  template <class T, std::size_t N>
  static T Pick(const T (&choices)[N], Random& random) {
    return choices[random() % N];
  }

  ModelEntries& EntriesOf(CallRunner& runner) const { return runner.Model().Table(m_id)->entries; }

  void Begin(Random& random) {
    m_id = static_cast<unsigned>(random() % 2 == 0 ? m_place * 30 + random() % 30
                                                   : 100'000 * (m_place + 1) + random() % 100'000);
    const unsigned type = random() % 3 == 0 ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC;
    const unsigned size = Pick({1U, 8U, 100U, 1000U, 20'000U, 200'000U}, random);
    m_shape = ModelTable(type, size, Pick({8U, 20U, 64U, 257U}, random));
    m_shape.threshold = static_cast<unsigned>(1 + random() % 12);
    m_family = Pick({KeyFamily::DENSE, KeyFamily::RANDOM_62, KeyFamily::RANDOM_62, KeyFamily::TIMES_1024,
                     KeyFamily::TIMES_16, KeyFamily::EQUAL_LOW_32},
                    random);
    m_firstIndex = static_cast<unsigned>(random() % (1U << 20));
    // As many small tables as large ones. A search among keys of few buckets is linear in their number.
    const std::size_t crowd = m_family == KeyFamily::EQUAL_LOW_32 ? 64 : m_family == KeyFamily::TIMES_1024 ? 8 : 1;
    m_goal = (m_keys / crowd >> random() % 9) / m_runners.size() + BATCH;
    ExpectEqual(KavoInitHashTable(m_id, size, m_shape.valueLen, type), KAVO_SUCCESS, "status of a new table");
    ExpectEqual(KavoInitHashTable(m_id, 8, 8, KAVO_TABLE_TYPE_BASIC), KAVO_EXISTS, "status of the table again");
    ExpectEqual(KavoSetRehashMode(m_id, AnyMode(random)), KAVO_SUCCESS, "status of the rehash mode");
    ExpectEqual(KavoSetFilterFreq(m_id, m_shape.threshold + 1), m_shape.IsFilter() ? KAVO_SUCCESS : KAVO_INVALID,
                "status of the frequency");
    for (unsigned thread = 0; thread < m_runners.size(); ++thread) {
      m_runners[thread] = std::make_unique<CallRunner>(m_id, m_shape, thread, static_cast<unsigned>(m_runners.size()));
    }
    m_full = false;
    m_alive = true;
  }

  void Work(unsigned thread, bool inserts, Random& random) {
    constexpr unsigned CALLS = 64;
    for (unsigned n = 0; n < CALLS; ++n) {
      const unsigned held = static_cast<unsigned>(EntriesOf(*m_runners[thread]).size());
      if (inserts && held + BATCH >= m_goal) {
        m_full = m_full || random() % 1024 == 0;
      }
      Call call;
      do {
        std::array<unsigned char, CALL_BYTES> bytes;
        std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<unsigned char>(random()); });
        call = DecodeCall({{m_family, m_family}, 1, BATCH}, bytes.data());
      } while (!IsOnKeys(call.function) || MayInsert(call.function) != (inserts && held + BATCH < m_goal));
      // New keys beside some that are there, or any, some of them absent.
      call.index = m_firstIndex + static_cast<unsigned>(inserts ? held - std::min<std::size_t>(held, random() % 8)
                                                                : random() % (held + 8));
      m_runners[thread]->Run(call);
    }
    m_totals.calls += CALLS;
  }

  // While no new key is inserted. Lookups and updates go on.
  void CheckSize() {
    std::size_t total = 0;
    for (const std::unique_ptr<CallRunner>& runner : m_runners) {
      total += EntriesOf(*runner).size();
    }
    unsigned long long size = 0;
    unsigned length = 0;
    ExpectEqual(KavoGetHtSizeAndVl(m_id, &size, &length, false), KAVO_SUCCESS, "status of the size");
    ExpectEqual(size, total, "size");
  }

  // It may give some keys twice, but none without a value, and ends or is given up.
  void WalkBesideInserts() {
    unsigned given = 0;
    for (const KavoHtBatchElement& entry : kavo::Entries(m_id, kavo::ExportMode::ALL, 200)) {
      Expect(entry.value != nullptr || m_shape.IsFilter(), "key ", entry.key, " without a value");
      if (++given == 64 * 200) {
        return;
      }
    }
  }

  const unsigned m_place;
  const std::size_t m_keys;
  SoakTotals& m_totals;
  std::shared_mutex m_life;       // shared: calls on the table; exclusive: its beginning and its end
  std::shared_mutex m_inserting;  // shared: inserts of new keys; exclusive: what must not run beside them
  // Set at the table's beginning.
  bool m_alive = false;
  unsigned m_id = 0;
  ModelTable m_shape{KAVO_TABLE_TYPE_BASIC, 0, 0};  // without entries
  KeyFamily m_family = KeyFamily::DENSE;
  unsigned m_firstIndex = 0;
  std::size_t m_goal = 0;  // keys of each thread

  std::atomic<bool> m_full{false};
  std::vector<std::unique_ptr<CallRunner>> m_runners;  // by thread
};

}  // namespace KavoTest
