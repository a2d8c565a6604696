// Scenarios of batches on one table, through the exported functions: what each thread calls, and the promises held
// against it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <numeric>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "explorer/explore.h"
#include "explorer/ledger.h"
#include "explorer/table_run.h"
#include "kavo.hpp"
#include "platform/test_hooks.h"
#include "support/held.h"
#include "support/values.h"

namespace KavoExplorer {

using Keys = std::vector<long>;

inline constexpr unsigned BATCH_FREQ = 3;  // of filter tables: the third occurrence admits

struct BatchTable {
  kavo::TableType type = kavo::TableType::BASIC;
  kavo::RehashMode mode = kavo::RehashMode::WHOLE_TABLE;
};

class BatchRun final : public ScenarioRun {
 public:
  explicit BatchRun(const BatchTable& table)
      : m_isFilter(table.type == kavo::TableType::FILTER), m_table(ID, 8, sizeof(long), table.type) {
    m_table.SetRehashMode(table.mode);
    if (m_isFilter) {
      m_table.SetFilterFrequency(BATCH_FREQ);
    }
  }

  void Offer(const Keys& keys, unsigned filterCount, bool hasMemory = true) {
    unsigned char untouched = 0;
    std::vector<unsigned char*> values(keys.size(), &untouched);
    std::vector<unsigned> isFind(keys.size(), UNTOUCHED);
    unsigned long long done = UNTOUCHED;
    Qen::TestHooks::FailAllocation(hasMemory ? 0 : 1, true);
    const int status =
        KavoBatchLookupOrInsert(ID, keys.data(), keys.size(), values.data(), isFind.data(), filterCount, &done);
    Qen::TestHooks::FailAllocation(0);
    if (status == KAVO_SUCCESS ? done != keys.size() : hasMemory || status != KAVO_NO_MEMORY || done >= keys.size()) {
      m_ledger.Fail(keys[0], "a batch of offers failed, or tells a wrong number");
      return;
    }
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (i < done) {
        const bool isFirst = std::count(keys.begin(), keys.begin() + static_cast<long>(i), keys[i]) == 0;
        Served(keys[i], values[i], isFind[i], isFirst, filterCount);
      } else if (i == done && m_told[keys[i]].occurrences > 0) {
        m_told[keys[i]].occurrences += filterCount;  // it is counted, and the next occurrence admits
      } else if (m_ledger.Completed(keys[i]); values[i] != &untouched || isFind[i] != UNTOUCHED) {
        m_ledger.Fail(keys[i], "not served, and something was written");
      }
    }
  }

  void Put(const Keys& keys) {
    std::vector<long> rows;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      rows.push_back(RowOf(keys[i], i));
    }
    m_table.BatchInsertOrUpdate(keys, rows);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      unsigned char* const value = KavoTest::AddressOf(ID, keys[i]);
      m_ledger.Offered(keys[i], 0, value);  // whether it was created is not said
      Told& told = m_told[keys[i]];
      told.row = rows[i];
      told.value = value;
      told.isPut = true;
    }
  }

  void Gather(const Keys& keys) {
    const std::vector<const void*> before = Completed(keys);
    const std::vector<long> rows = Rows(keys);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (rows[i] == ABSENT ? before[i] != nullptr : rows[i] / 10 != keys[i] + 1) {
        m_ledger.Fail(keys[i], rows[i] == ABSENT ? "a gather missed it" : "gathered what nobody has written");
      }
    }
  }

  void Look(const Keys& keys) {
    const std::vector<const void*> before = Completed(keys);
    std::vector<unsigned char*> values(keys.size());
    std::size_t found = m_table.BatchLookup(keys, values);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      m_ledger.LookedUp(keys[i], before[i], values[i]);
      found -= values[i] != nullptr ? 1 : 0;
    }
    if (found != 0) {
      m_ledger.Fail(keys[0], "the number found is not that of the addresses");
    }
  }

  // Two entries at a time: the cursor stays while others insert.
  void Walk() {
    const std::set<long> before = m_ledger.CompletedKeys();
    std::multiset<long> walked;
    for (const KavoHtBatchElement& element : m_table.Export(kavo::ExportMode::ALL, 2)) {
      if (element.value != nullptr) {
        m_ledger.LookedUp(element.key, nullptr, element.value);
        walked.insert(element.key);
      }
    }
    m_ledger.Walked(before, walked);
  }

  std::string Check() override {
    CheckEntries();
    if (m_ledger.Failure().empty()) {
      Keys others(32);  // whatever was left half done, an offer to its bucket waits for it in vain
      std::iota(others.begin(), others.end(), 3200);
      Offer(others, 0);
      m_table.Destroy();
      if (!(KavoTest::Held() == m_before)) {
        m_ledger.Fail(others[0], "memory is left behind the table");
      }
    }
    return m_ledger.Failure();
  }

 private:
  static constexpr unsigned UNTOUCHED = 77;
  static constexpr long ABSENT = -1;  // the default row of a gather

  // Element `index` of a batch writes this, which tells the key, and is not zero.
  static long RowOf(long key, std::size_t index) { return 10 * (key + 1) + static_cast<long>(index); }

  struct Told {
    unsigned char* value = nullptr;
    long row = 0;
    bool isCreated = false;
    bool isPut = false;
    unsigned occurrences = 0;
    unsigned withoutValue = 0;
  };

  void Served(long key, unsigned char* value, unsigned isFind, bool isFirst, unsigned filterCount) {
    Told& told = m_told[key];
    told.occurrences += filterCount;
    if (isFind > 1 || (isFind == 0 && (!isFirst || value == nullptr))) {
      m_ledger.Fail(key, "isFind is wrong");
    }
    if (m_isFilter && value == nullptr) {
      if (++told.withoutValue == BATCH_FREQ) {
        m_ledger.Fail(key, "admitted too late");
      }
      return;
    }
    told.value = value;
    told.isCreated = told.isCreated || isFind == 0;
    m_ledger.Offered(key, isFind == 0 ? 1 : 0, value);
  }

  std::vector<const void*> Completed(const Keys& keys) {
    std::vector<const void*> completed;
    for (const long key : keys) {
      completed.push_back(m_ledger.Completed(key));
    }
    return completed;
  }

  std::vector<long> Rows(const Keys& keys) const {
    std::vector<long> rows(keys.size());
    m_table.BatchGather(keys, rows, std::span(&ABSENT, 1));
    return rows;
  }

  void CheckEntries() {
    std::multiset<long> walked;
    for (const KavoHtBatchElement& element : m_table.Export(kavo::ExportMode::ALL, 64)) {
      if (m_isFilter && element.count != m_told[element.key].occurrences) {
        m_ledger.Fail(element.key, "occurrences were lost, or counted twice");
      }
      if (element.value != nullptr) {
        walked.insert(element.key);
      }
    }
    std::set<const void*> values;
    for (const auto& [key, told] : m_told) {
      if (told.value != nullptr && !values.insert(told.value).second) {
        m_ledger.Fail(key, "has the value of another key");
      }
      if (m_isFilter && !told.isPut && (told.value != nullptr) != (told.occurrences >= BATCH_FREQ)) {
        m_ledger.Fail(key, "admitted too early, or not at all");
      }
      if (told.value != nullptr && !told.isCreated && (told.isPut || m_isFilter)) {
        m_ledger.Offered(key, 1, told.value);
      }
      if (Rows({key})[0] != (told.value != nullptr ? told.row : ABSENT)) {
        m_ledger.Fail(key, "not the last row that was written");
      }
    }
    m_ledger.CheckAtRest([](long key) { return KavoTest::AddressOf(ID, key); }, walked);
  }

  static constexpr unsigned ID = 0;
  const bool m_isFilter;
  const KavoTest::Held m_before{};
  kavo::Table m_table;
  Ledger m_ledger;
  std::map<long, Told> m_told;
};

using Batch = std::function<void(BatchRun&)>;

inline Batch Offers(const Keys& keys, unsigned filterCount = 0) {  // KavoBatchLookupOrInsert
  return [=](BatchRun& run) { run.Offer(keys, filterCount); };
}
// No value blocks but those in stock.
inline Batch OffersWithoutMemory(const Keys& keys, unsigned filterCount = 0) {
  return [=](BatchRun& run) { run.Offer(keys, filterCount, false); };
}
// KavoBatchInsertOrUpdate, each element with a row of its own. A key that another thread gathers meanwhile stands there
// once, in one batch only: its value must not change then.
inline Batch Puts(const Keys& keys) {
  return [=](BatchRun& run) { run.Put(keys); };
}
inline Batch Gathers(const Keys& keys) {
  return [=](BatchRun& run) { run.Gather(keys); };
}
inline Batch Looks(const Keys& keys) {
  return [=](BatchRun& run) { run.Look(keys); };
}
inline Batch Walks() {  // over all entries, with a cursor
  return [](BatchRun& run) { run.Walk(); };
}

// Every order of the threads' steps that the budget reaches keeps the promises, if the batches of `before` have come
// first. The table has 16 cells, and so as many buckets, and stock for 8 values.
inline void ExpectBatchesHold(const std::vector<Batch>& before, const std::vector<Batch>& threads,
                              const BatchTable& table = {}) {
  Silence();
  ExpectCallsHold<BatchRun>(before, threads, table);
}

}  // namespace KavoExplorer
