// FilterEsConcurrentTable: the kind that admits a key only after it was offered often enough. Every key gets an entry
// at once, but that entry is a small filter record which counts; a value block comes at admission.
//
// States of a key, with its filter record
//
//   absent      no record                              an insert that brings a value, or enough occurrences, or that
//                                                      counts nothing, goes straight to admitted; others to counted
//   counted     admitted 0, value null                 ended by the call whose count passes the threshold
//   admitting   admitted 1, value null                 that call is taking the block, and ends it: to admitted, or,
//                                                      when there is no block, back to counted
//   admitted    admitted 1, value set                  final
//
// Promises
//  - Each occurrence is counted once, whatever the table does meanwhile: a key has one record for the life of the
//    table, to which all copies of its entry point, and a call counts once however often it has to look. A call that
//    found the record has counted, even if it then fails; one that could not make the record has not.
//  - A key is admitted by exactly one call, and its block is taken then and not before.
//  - Whoever waits for the block of a key in admitting also watches for its return to counted, and then tries itself:
//    a failed admission keeps nobody waiting.
//
// Filter records are made in runs, like fresh blocks, and freed with the table.
#pragma once

#include <cstdint>
#include <exception>
#include <limits>
#include <new>

#include "hash/hashtable.h"
#include "hash/traits.h"
#include "memory/fresh_blocks.h"
#include "platform/test_hooks.h"
#include "platform/wait.h"
#include "table/es_concurrent_table.h"
#include "table/export_hints.h"
#include "table/export_selection.h"
#include "table/filter_record.h"
#include "table/update_value.h"

namespace Qen {

// A base, so that the records are there when the table is made, and still when it is destroyed.
struct FilterRecords {
  mutable FreshBlocks m_records{BlockLayout{sizeof(FilterRecord), 0}};
};

template <class TableId, class Key, class Value, class KTraits, class VTraits>
class FilterEsConcurrentTable final : private FilterRecords,
                                      public EsConcurrentTable<TableId, Key, Value, KTraits, VTraits> {
  using Base = EsConcurrentTable<TableId, Key, Value, KTraits, VTraits>;

 public:
  using typename Base::Cursor;
  using typename Base::OperationInfo;

  // The argument record of the filter operations.
  struct FilterOperationInfo {
    Key key;
    unsigned char* rawPtr;         // in: not null when the caller brings a value; out: the entry's block, or null
    MemKind memKind;               // as in OperationInfo
    std::uint32_t filterCount;     // occurrences that this call adds
    NewValue* newValue = nullptr;  // as in OperationInfo
  };

  FilterEsConcurrentTable(const TableId& tableId, const unsigned long long& size, const unsigned& valueLen)
      : Base(tableId, size, valueLen, &m_records.Directory()) {}

  // Null while the key is not admitted.
  unsigned char* GetValue(FilterRecord* record) const override { return VTraits::Block(*record); }

  // Insert-or-find that counts one occurrence.
  int InsertOrFind(OperationInfo& info) const override;

  // KAVO_INVALID, logged, for a key that is not admitted.
  int UpdateValue(FilterRecord* record, const unsigned char* src, unsigned len) const override;

  void GetTableSizeAndVl(unsigned long long& size, unsigned& valueLen, bool admittedOnly) const override {
    valueLen = this->ValueLen();
    size =
        admittedOnly ? Base::CountEntries(*this, true, RecordHint{false}) : Base::CountEntries(*this, false, NoHint());
  }

  // A key that is not admitted is in every export. Modes without a name take the entries that an insert gave that
  // number as their state.
  bool IsMeetRequirements(unsigned mode, FilterRecord* record) const override {
    unsigned char* const block = GetValue(record);
    return block == nullptr || (mode > LAST_EXPORT_MODE ? ValueHeader::Load(block) == mode : IsDue(mode, block));
  }

  void SetBatchInfo(KavoHtBatchInfo& info, const Cursor& it, unsigned index) const override {
    KavoHtBatchElement& element = info.elements[index];
    const FilterRecord& record = *it.EntryBlock();
    // Acquire: the block's bytes, as in GetValue.
    unsigned char* const block = record.value.load(std::memory_order_acquire);
    element.key = it.EntryKey();
    element.value = block == nullptr ? nullptr : ValueBytes(block);
    element.count = record.count.load(std::memory_order_relaxed);  // a number of its own
  }

  void SetTableType(KavoHtBatchInfo& info) const override { info.tableType = KAVO_TABLE_TYPE_FILTER; }

  int GetBatchNext(KavoHtBatchInfo& info, unsigned& realNum, void*& iter) const {
    return Base::GetBatchNext(*this, info, realNum, iter, RecordHint{info.exportMode != KAVO_EXPORT_ALL});
  }

  void AddStats(KavoTableStats& stats) const {
    Base::AddStats(stats);
    const FreshBlocks::Usage records = m_records.GetUsage();
    const unsigned long long bytes = records.blocks * sizeof(FilterRecord);
    stats.filterRecordBytes += bytes;
    stats.stockBytes += records.bytes - bytes;
  }

  // Each answers 1 (new entry), 0 (it was there) or a negative status.

  // Inserts, with the value's block if the caller brings one; a key that is there stays as it is.
  int InsertValue(FilterOperationInfo& info) const;
  // Inserts as InsertValue does, or gives the block of a key that is there. Counts nothing.
  int InsertOrUpdateFilterValue(FilterOperationInfo& info) const;
  // Inserts with a block at once, or finds. Counts nothing.
  int InsertOrFindForDefaultKey(FilterOperationInfo& info) const;
  // Counts `filterCount` occurrences, and admits the key once its count has passed the threshold.
  int InsertOrFindWithCounter(FilterOperationInfo& info) const;
  // The last two of a key that is there, with its record.
  int CountFound(FilterRecord& record, FilterOperationInfo& info) const {
    if (info.filterCount == 0) {
      info.rawPtr = VTraits::Block(record);
      return KAVO_SUCCESS;
    }
    return FindOrAdmit(record, AddCount(record, info.filterCount), info);
  }

  // The new-entry step of the first two.
  int AssignFilterValue(FilterOperationInfo& info, Value& value) const;

  // 0 and 1 both admit at the first occurrence. May run beside any other operation, which decides with the old
  // threshold or the new one.
  void SetFilterFreq(std::uint32_t freq) const noexcept;
  std::uint32_t FilterFreq() const noexcept { return m_filterFreq.load(std::memory_order_relaxed); }

 private:
  static constexpr std::uint32_t MAX_COUNT = std::numeric_limits<std::uint32_t>::max();

  template <class OnInsert, class OnFound>
  int Run(const Key& key, const OnInsert& onInsert, const OnFound& onFound) const {
    return this->HashTableOwner().GetHashtable().InsertOrFind(key, onInsert, onFound);
  }
  // Relaxed: a number of its own; an operation may decide with the old one.
  std::uint32_t Threshold() const noexcept { return m_filterThreshold.load(std::memory_order_relaxed); }

  int MakeRecord(Value& value, FilterOperationInfo& info, bool admit) const;
  static std::uint32_t AddCount(FilterRecord& record, std::uint32_t occurrences) noexcept;
  int FindOrAdmit(FilterRecord& record, std::uint32_t count, FilterOperationInfo& info) const;
  static int ValueAcquire(const FilterRecord& record);

  mutable Atomic<std::uint32_t> m_filterFreq{100};
  mutable Atomic<std::uint32_t> m_filterThreshold{99};
};

// A step that makes a filter record logs a failed allocation under its own name; that of a step without one is
// operator(), which hosts match on.
#define KAVO_CATCH_NO_RECORD(function)                                                                    \
  catch (const std::exception& error) {                                                                   \
    KAVO_LOG_EVENT_AS(function, TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", error.what()); \
    return static_cast<int>(KAVO_NO_MEMORY);                                                              \
  }

// The record first, then the block: a block is taken only when nothing but it is missing. Throws std::bad_alloc.
template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::MakeRecord(Value& value, FilterOperationInfo& info,
                                                                               bool admit) const {
  const NumberedBlock place = m_records.Take();
  FilterRecord* const record = new (place.address) FilterRecord;
  if (admit) {
    NumberedBlock block;
    const int ret = this->GetMemAndRawPtr(info.memKind, block);
    if (ret != KAVO_SUCCESS) {
      m_records.GiveBack(place);
      return ret;
    }
    info.rawPtr = block.address;
    if (info.newValue != nullptr) {
      info.newValue->WriteTo(block.address, this->ValueLen());
    }
    // Relaxed: Attach publishes the record with all that it holds.
    record->value.store(block.address, std::memory_order_relaxed);
    record->admitted.store(1, std::memory_order_relaxed);
  } else {
    info.rawPtr = nullptr;
  }
  record->count.store(info.filterCount, std::memory_order_relaxed);
  value.Attach(place.number);
  return KAVO_SUCCESS;
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::AssignFilterValue(FilterOperationInfo& info,
                                                                                      Value& value) const {
  try {
    return MakeRecord(value, info, info.rawPtr != nullptr);
  }
  KAVO_CATCH_NO_RECORD(__func__)
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::InsertValue(FilterOperationInfo& info) const {
  return Run(
      info.key, [this, &info](Value& value) { return AssignFilterValue(info, value); },
      [](FilterRecord&) { return KAVO_SUCCESS; });
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::InsertOrUpdateFilterValue(
    FilterOperationInfo& info) const {
  return Run(
      info.key, [this, &info](Value& value) { return AssignFilterValue(info, value); },
      [&info](FilterRecord& record) {
        info.rawPtr = VTraits::Block(record);
        return KAVO_SUCCESS;
      });
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::InsertOrFindForDefaultKey(
    FilterOperationInfo& info) const {
  return Run(
      info.key,
      [this, &info](Value& value) {
        try {
          return MakeRecord(value, info, true);
        }
        KAVO_CATCH_NO_RECORD("operator()")  // NOLINT(bugprone-lambda-function-name): meant
      },
      [&info](FilterRecord& record) {
        info.rawPtr = VTraits::Block(record);
        return KAVO_SUCCESS;
      });
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::InsertOrFindWithCounter(
    FilterOperationInfo& info) const {
  const auto onInsert = [this, &info](Value& value) {
    try {
      return MakeRecord(value, info, info.filterCount > Threshold());
    }
    KAVO_CATCH_NO_RECORD("operator()")  // NOLINT(bugprone-lambda-function-name): meant
  };
  // Runs once in a call: the hash table waits by itself for a record that is not there yet. So the call counts once.
  return Run(info.key, onInsert, [this, &info](FilterRecord& record) { return CountFound(record, info); });
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::InsertOrFind(OperationInfo& info) const {
  FilterOperationInfo counting{info.key, nullptr, info.memKind, 1};
  const int status = InsertOrFindWithCounter(counting);
  info.rawPtr = counting.rawPtr;
  info.memKind = counting.memKind;
  return status;
}

// The count that this call stored; it saturates. Relaxed: the count is a number of its own, and the block is acquired
// from the record's value.
template <class TableId, class Key, class Value, class KTraits, class VTraits>
std::uint32_t FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::AddCount(
    FilterRecord& record, std::uint32_t occurrences) noexcept {
  std::uint32_t count = record.count.load(std::memory_order_relaxed);
  std::uint32_t sum = count;
  do {
    sum = count > MAX_COUNT - occurrences ? MAX_COUNT : count + occurrences;
  } while (sum != count && !record.count.compare_exchange_weak(count, sum, std::memory_order_relaxed));
  return sum;
}

// `count` is the one that this call stored. Puts the key's block into `info.rawPtr`, or null while it is not admitted.
template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::FindOrAdmit(FilterRecord& record,
                                                                                std::uint32_t count,
                                                                                FilterOperationInfo& info) const {
  for (;;) {
    // Acquire: pairs with the release store below; the block's bytes.
    info.rawPtr = record.value.load(std::memory_order_acquire);
    if (info.rawPtr != nullptr) {
      return KAVO_SUCCESS;
    }
    // Relaxed throughout on `admitted`: it only chooses who takes the block, which `value` publishes.
    std::uint8_t admitted = record.admitted.load(std::memory_order_relaxed);
    if (admitted == 0) {
      if (count <= Threshold()) {
        return KAVO_SUCCESS;  // counted
      }
      KAVO_TEST_POINT("FilterTable.MayAdmit");
      if (record.admitted.compare_exchange_strong(admitted, 1, std::memory_order_relaxed)) {
        KAVO_TEST_POINT("FilterTable.Admitting");
        NumberedBlock block;
        const int ret = this->GetMemAndRawPtr(info.memKind, block);
        if (ret != KAVO_SUCCESS) {
          record.admitted.store(0, std::memory_order_relaxed);
          return ret;
        }
        info.rawPtr = block.address;
        record.value.store(block.address, std::memory_order_release);
        return KAVO_SUCCESS;
      }
    }
    const int ret = ValueAcquire(record);
    if (ret != KAVO_SUCCESS) {
      return ret;
    }
  }
}

// Waits while another call takes the key's block: until it is there, or could not be had.
template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::ValueAcquire(const FilterRecord& record) {
  Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
  // Relaxed: the caller looks at both again, with acquire where it matters.
  while (record.value.load(std::memory_order_relaxed) == nullptr &&
         record.admitted.load(std::memory_order_relaxed) != 0) {
    KAVO_TEST_POINT("FilterTable.WaitForBlock");
    if (!waiter.Pause()) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "ValueAcquire overtime");
      return KAVO_FAILED;
    }
  }
  return KAVO_SUCCESS;
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::UpdateValue(FilterRecord* record,
                                                                                const unsigned char* src,
                                                                                unsigned len) const {
  unsigned char* const block = GetValue(record);
  if (block == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "rawPtr is nullptr!");
    return KAVO_INVALID;
  }
  return Qen::UpdateValue(block, src, len);
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
void FilterEsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::SetFilterFreq(std::uint32_t freq) const noexcept {
  // Relaxed: see Threshold.
  m_filterFreq.store(freq, std::memory_order_relaxed);
  m_filterThreshold.store(freq == 0 ? 0 : freq - 1, std::memory_order_relaxed);
}

#undef KAVO_CATCH_NO_RECORD

}  // namespace Qen
