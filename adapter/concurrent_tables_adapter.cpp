// The exported functions on single keys: check the arguments, resolve the table, run one table operation, and turn its
// outcome into a status code. Each failure ends in one line under the function's name; the steps below it log causes
// under their own.
#include "adapter/exception_boundary.h"
#include "adapter/table_call.h"
#include "hash/hcore.h"
#include "kavo.h"
#include "platform/bounded_copy.h"
#include "platform/log.h"

using namespace Qen;

namespace {

// KAVO_SUCCESS with the key's block, which is null for a key that a filter table only counts.
template <class Table>
int FindBlock(const Table& table, long key, unsigned char*& block) {
  auto* const record = table.Find(key);
  if (record == nullptr) {
    return KAVO_INVALID;
  }
  block = table.GetValue(record);
  return KAVO_SUCCESS;
}

// Without a block the address is null and the length stays.
template <class Table>
void GiveValue(const Table& table, unsigned char* block, unsigned char** valuePtr, unsigned* valueLen) {
  if (block == nullptr) {
    *valuePtr = nullptr;
    return;
  }
  *valueLen = table.ValueLen();
  *valuePtr = ValueBytes(block);
}

template <class Table>
int Update(const Table& table, long key, const unsigned char* valuePtr, unsigned valueLen) {
  if (valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
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
int InsertValue(const BasicTable& table, const Offer& offer, NewValue& newValue) {
  BasicTable::OperationInfo info{offer.key, nullptr, MemKind::ORDINARY, &newValue};
  return table.InsertOrFind(info);
}

int InsertValue(const FilterTable& table, const Offer& offer, NewValue& newValue) {
  FilterTable::FilterOperationInfo info{offer.key, offer.valuePtr, MemKind::ORDINARY, offer.filterCount, &newValue};
  return table.InsertValue(info);
}

template <class Table>
int Insert(const Table& table, const Offer& offer, unsigned state) {
  if (offer.valuePtr != nullptr && offer.valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
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
int Overwrite(int status, const NewValue& newValue, unsigned char* block, unsigned len) {
  if (status == ENTRY_INSERTED) {
    return newValue.copyResult;
  }
  const int ret = memcpy_s(ValueBytes(block), len, newValue.bytes, len);
  if (ret == 0) {
    ValueHeader::Store(block, newValue.state);
  }
  return ret;
}

int InsertOrUpdate(const BasicTable& table, const Offer& offer) {
  if (offer.valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
  NewValue newValue{offer.valuePtr, ValueHeader::CHANGED};
  BasicTable::OperationInfo info{offer.key, nullptr, MemKind::ORDINARY, &newValue};
  const int status = table.InsertOrFind(info);
  if (status < 0) {
    return status;
  }
  if (info.rawPtr == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "rawPtr is nullptr!");
    return KAVO_INVALID;
  }
  const int ret = Overwrite(status, newValue, info.rawPtr, offer.valueLen);
  if (ret != 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "memcpy_s failed, ret[%d]", ret);
    return KAVO_NO_MEMORY;
  }
  return KAVO_SUCCESS;
}

int InsertOrUpdate(const FilterTable& table, const Offer& offer) {
  if (offer.valuePtr != nullptr && offer.valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
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

struct Entry {
  int status;
  unsigned char* block;
  MemKind memKind;
};

Entry InsertOrFind(const BasicTable& table, long key, unsigned /* filterCount */) {
  BasicTable::OperationInfo info{key, nullptr, MemKind::PREPARED};
  const int status = table.InsertOrFind(info);
  return {status, info.rawPtr, info.memKind};
}

Entry InsertOrFind(const FilterTable& table, long key, unsigned filterCount) {
  FilterTable::FilterOperationInfo info{key, nullptr, MemKind::PREPARED, filterCount};
  const int status = (filterCount == 0 ? table.InsertOrFindForDefaultKey(info) : table.InsertOrFindWithCounter(info));
  return {status, info.rawPtr, info.memKind};
}

}  // namespace

int KavoLookup(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen) {
  if (valuePtr == nullptr || valueLen == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoLookup failed, valuePtr == nullptr || valueLen == nullptr");
    return KAVO_INVALID;
  }
  if (key < 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoLookup failed, key < 0");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) {
      unsigned char* block = nullptr;
      const int found = FindBlock(table, key, block);
      if (found == KAVO_SUCCESS) {
        GiveValue(table, block, valuePtr, valueLen);
      }
      return found;
    });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "LookUpWithValLen failed, ret[%d] != 0", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoLookupForUpdate(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen) {
  if (valuePtr == nullptr || valueLen == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoLookupForUpdate Failed, valuePtr == nullptr || valueLen == nullptr");
    return KAVO_INVALID;
  }
  if (key < 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoLookupForUpdate Failed, key < 0");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) {
      unsigned char* block = nullptr;
      const int found = FindBlock(table, key, block);
      if (found == KAVO_SUCCESS) {
        if (block != nullptr) {
          // The entry counts as changed from here on, before the caller has changed anything.
          ValueHeader::Store(block, ValueHeader::CHANGED);
        }
        GiveValue(table, block, valuePtr, valueLen);
      }
      return found;
    });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "LookUpWithValLen failed, ret[%d] != 0", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoUpdate(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen) {
  if (valuePtr == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoUpdate failed, valuePtr == nullptr");
    return KAVO_INVALID;
  }
  if (key < 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoUpdate failed, key < 0");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) { return Update(table, key, valuePtr, valueLen); });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Update failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoInsert(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen, unsigned int filterCount,
               unsigned int state) {
  if (key < 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoInsert failed, key < 0");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    if (ref.type == TABLE_TYPE_BASIC && valuePtr == nullptr) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoInsert failed, valuePtr == nullptr");
      return KAVO_INVALID;
    }
    const Offer offer{key, valuePtr, valueLen, filterCount};
    const int ret = OnTable(ref, [&](const auto& table) { return Insert(table, offer, state); });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Insert failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoInsertOrUpdate(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen,
                       unsigned int filterCount) {
  if (key < 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoInsertOrUpdate failed, key < 0");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    if (ref.type == TABLE_TYPE_BASIC && valuePtr == nullptr) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoInsertOrUpdate failed, valuePtr == nullptr");
      return KAVO_INVALID;
    }
    const Offer offer{key, valuePtr, valueLen, filterCount};
    const int ret = OnTable(ref, [&](const auto& table) { return InsertOrUpdate(table, offer); });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "InsertOrUpdate failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoLookupOrInsert(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen,
                       unsigned int* isFind, unsigned int filterCount) {
  if (valuePtr == nullptr || valueLen == nullptr || isFind == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT,
                   "KavoLookupOrInsert failed, valuePtr == nullptr || valueLen == nullptr || isFind == nullptr ");
    return KAVO_INVALID;
  }
  if (key < 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoLookupOrInsert failed, key < 0");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) {
      const Entry entry = InsertOrFind(table, key, filterCount);
      if (entry.status < 0) {
        return entry.status;
      }
      GiveValue(table, entry.block, valuePtr, valueLen);
      // A new entry whose block came from the prepared stock has a value already: to the caller it is as good as found.
      // So is one without a block, which has no value that the caller could write.
      *isFind = entry.status == ENTRY_FOUND || entry.memKind == MemKind::PREPARED ? 1 : 0;
      return static_cast<int>(KAVO_SUCCESS);
    });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "LookupOrInsertWithValLen failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}
