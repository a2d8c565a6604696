// A filter table as the exported functions use it, for tests that look at its records.
#pragma once

#include <cstdint>

#include "hash/traits.h"
#include "hash/value_record.h"
#include "table/filter_es_concurrent_table.h"

namespace KavoTest {

using FilterTable = Qen::FilterEsConcurrentTable<int, long, Qen::FHashValue, Qen::KTraits, Qen::FVTraits>;
using FilterInfo = FilterTable::FilterOperationInfo;

struct Answer {
  int status = -100;
  unsigned char* block = nullptr;
  bool operator==(const Answer&) const = default;
};

inline Answer Offer(const FilterTable& table, long key, std::uint32_t occurrences = 1) {
  FilterInfo info{key, nullptr, Qen::MemKind::ORDINARY, occurrences};
  const int status = table.InsertOrFindWithCounter(info);
  return {status, info.rawPtr};
}

inline Answer OfferDefault(const FilterTable& table, long key) {
  FilterInfo info{key, nullptr, Qen::MemKind::ORDINARY, 0};
  const int status = table.InsertOrFindForDefaultKey(info);
  return {status, info.rawPtr};
}

// Null when the key is absent.
inline const Qen::FilterRecord* RecordOf(const FilterTable& table, long key) {
  return table.Find(key);
}

inline std::uint32_t CountOf(const FilterTable& table, long key) {
  const Qen::FilterRecord* const record = RecordOf(table, key);
  return record == nullptr ? 0 : record->count.load();
}

// Leaves the pool without a block in stock, so that the next one must be allocated. Keys from 1,000,000 on.
inline void UseUpStock(const FilterTable& table) {
  for (unsigned long long i = 0; i < table.Capacity(); ++i) {
    OfferDefault(table, 1'000'000 + static_cast<long>(i));
  }
}

}  // namespace KavoTest
