// What the exported functions do with one key, once its table is known: the rules of status, outputs and value headers,
// which hold for a single call and for each key of a batch.
#pragma once

#include "adapter/call_frame.h"
#include "adapter/table_types.h"
#include "hash/hcore.h"
#include "kavo.h"
#include "platform/bounded_copy.h"

namespace Qen {

// Without a block, for a key that a filter table only counts, the address is null and the length stays.
template <class Table>
void GiveValue(const Table& table, unsigned char* block, unsigned char** valuePtr, unsigned* valueLen) {
  if (block == nullptr) {
    *valuePtr = nullptr;
    return;
  }
  *valueLen = table.ValueLen();
  *valuePtr = ValueBytes(block);
}

enum class Access { READ, UPDATE };

// Always inlined: it is all that two exported functions do, and the compiler would have them share it by a call.
template <class Table>
[[gnu::always_inline]] inline int Lookup(const Table& table, long key, Access access, unsigned char** valuePtr,
                                         unsigned* valueLen) {
  auto* const record = table.Find(key);
  if (record == nullptr) {
    return KAVO_INVALID;
  }
  unsigned char* const block = table.GetValue(record);
  if (access == Access::UPDATE && block != nullptr) {
    // The entry counts as changed from here on, before the caller has changed anything.
    ValueHeader::Store(block, ValueHeader::CHANGED);
  }
  GiveValue(table, block, valuePtr, valueLen);
  return KAVO_SUCCESS;
}

template <class Table>
int Update(const Table& table, long key, const unsigned char* valuePtr, unsigned valueLen) {
  KAVO_REFUSE_IF(valueLen != table.ValueLen(), "valuelen not equal table valuelen!");
  auto* const record = table.Find(key);
  if (record == nullptr) {
    return KAVO_INVALID;
  }
  return table.UpdateValue(record, valuePtr, valueLen);
}

// What the inserting functions are given. Only filter tables take null value bytes, and use the count.
struct Offer {
  long key;
  unsigned char* valuePtr;
  unsigned valueLen;
  unsigned filterCount;
};

// The status of the table's insert.
inline int InsertValue(const BasicTable& table, const Offer& offer, NewValue& newValue) {
  BasicTable::OperationInfo info{offer.key, nullptr, MemKind::ORDINARY, &newValue};
  return table.InsertOrFind(info);
}

inline int InsertValue(const FilterTable& table, const Offer& offer, NewValue& newValue) {
  FilterTable::FilterOperationInfo info{offer.key, offer.valuePtr, MemKind::ORDINARY, offer.filterCount, &newValue};
  return table.InsertValue(info);
}

template <class Table>
int Insert(const Table& table, const Offer& offer, unsigned state) {
  KAVO_REFUSE_IF(offer.valuePtr != nullptr && offer.valueLen != table.ValueLen(), "valuelen not equal table valuelen!");
  NewValue newValue{offer.valuePtr, ValueHeader::FromInsertState(state)};
  const int status = InsertValue(table, offer, newValue);
  if (status < 0) {
    return status;
  }
  if (status == ENTRY_FOUND) {
    return KAVO_INVALID;
  }
  if (newValue.copyResult != 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "memcpy_s failed, ret = [%d]", newValue.copyResult);
    return KAVO_NO_MEMORY;
  }
  return KAVO_SUCCESS;
}

// The copy's result. A new entry has its value already.
inline int Overwrite(int status, const NewValue& newValue, unsigned char* block, unsigned len) {
  if (status == ENTRY_INSERTED) {
    return newValue.copyResult;
  }
  const int ret = memcpy_s(ValueBytes(block), len, newValue.bytes, len);
  if (ret == 0) {
    ValueHeader::Store(block, newValue.state);
  }
  return ret;
}

inline int InsertOrUpdate(const BasicTable& table, const Offer& offer) {
  KAVO_REFUSE_IF(offer.valueLen != table.ValueLen(), "valuelen not equal table valuelen!");
  NewValue newValue{offer.valuePtr, ValueHeader::CHANGED};
  BasicTable::OperationInfo info{offer.key, nullptr, MemKind::ORDINARY, &newValue};
  const int status = table.InsertOrFind(info);
  if (status < 0) {
    return status;
  }
  KAVO_REFUSE_IF(info.rawPtr == nullptr, "rawPtr is nullptr!");
  const int ret = Overwrite(status, newValue, info.rawPtr, offer.valueLen);
  if (ret != 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "memcpy_s failed, ret[%d]", ret);
    return KAVO_NO_MEMORY;
  }
  return KAVO_SUCCESS;
}

inline int InsertOrUpdate(const FilterTable& table, const Offer& offer) {
  KAVO_REFUSE_IF(offer.valuePtr != nullptr && offer.valueLen != table.ValueLen(), "valuelen not equal table valuelen!");
  NewValue newValue{offer.valuePtr, ValueHeader::CHANGED};
  FilterTable::FilterOperationInfo info{offer.key, offer.valuePtr, MemKind::ORDINARY, offer.filterCount, &newValue};
  const int status = table.InsertOrUpdateFilterValue(info);
  if (status < 0) {
    return status;
  }
  if (info.rawPtr == nullptr || offer.valuePtr == nullptr) {
    return KAVO_SUCCESS;  // counted, or nothing to write
  }
  const int ret = Overwrite(status, newValue, info.rawPtr, offer.valueLen);
  if (ret != 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "memcpy_s failed, ret = [%d]", ret);
    return KAVO_NO_MEMORY;
  }
  return KAVO_SUCCESS;
}

struct OfferedEntry {
  int status;
  unsigned char* block;
  MemKind memKind;
};

inline OfferedEntry InsertOrFind(const BasicTable& table, long key, unsigned /* filterCount */) {
  BasicTable::OperationInfo info{key, nullptr, MemKind::PREPARED};
  const int status = table.InsertOrFind(info);
  return {status, info.rawPtr, info.memKind};
}

inline OfferedEntry InsertOrFind(const FilterTable& table, long key, unsigned filterCount) {
  FilterTable::FilterOperationInfo info{key, nullptr, MemKind::PREPARED, filterCount};
  const int status = (filterCount == 0 ? table.InsertOrFindForDefaultKey(info) : table.InsertOrFindWithCounter(info));
  return {status, info.rawPtr, info.memKind};
}

// LookupOrInsert of a key that is there, with its record.
inline int FindAgain(const BasicTable&, unsigned char& record, unsigned /* filterCount */, unsigned char*& block) {
  block = &record;
  return KAVO_SUCCESS;
}

inline int FindAgain(const FilterTable& table, FilterRecord& record, unsigned filterCount, unsigned char*& block) {
  FilterTable::FilterOperationInfo info{0, nullptr, MemKind::PREPARED, filterCount};
  const int status = table.CountFound(record, info);
  block = info.rawPtr;
  return status;
}

// Finds the key, or inserts it without writing value bytes or header. `block` is null for a key that is only counted.
template <class Table>
int LookupOrInsert(const Table& table, long key, unsigned filterCount, unsigned char*& block, unsigned& isFind) {
  const OfferedEntry entry = InsertOrFind(table, key, filterCount);
  if (entry.status < 0) {
    return entry.status;
  }
  block = entry.block;
  // A new entry whose block came from the prepared stock has a value already: to the caller it is as good as found.
  // So is one without a block, which has no value that the caller could write.
  isFind = entry.status == ENTRY_FOUND || entry.memKind == MemKind::PREPARED ? 1 : 0;
  return KAVO_SUCCESS;
}

}  // namespace Qen
