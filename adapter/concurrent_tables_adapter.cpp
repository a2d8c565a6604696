// The exported functions on single keys: check the arguments, resolve the table, run one table operation, and turn its
// outcome into a status code. Each failure ends in one line under the function's name; the steps below it log causes
// under their own.
#include "adapter/exception_boundary.h"
#include "adapter/manager.h"
#include "adapter/table_types.h"
#include "hash/hcore.h"
#include "kavo.h"
#include "platform/bounded_copy.h"
#include "platform/log.h"

using namespace Qen;

namespace {

const BasicTable& AsBasic(const TableRef& ref) noexcept {
  return *static_cast<const BasicTable*>(ref.table);
}

// KAVO_SUCCESS with the key's block, which Find promises for every record that it returns.
int FindBlock(const TableRef& ref, long key, unsigned char*& block) {
  if (ref.type != TABLE_TYPE_BASIC) [[unlikely]] {
    return KAVO_UNSUPPORTED;
  }
  const BasicTable& table = AsBasic(ref);
  HashValue* const record = table.Find(key);
  if (record == nullptr) {
    return KAVO_INVALID;
  }
  block = table.GetValue(record);
  return KAVO_SUCCESS;
}

int Update(const TableRef& ref, long key, const unsigned char* valuePtr, unsigned valueLen) {
  if (ref.type != TABLE_TYPE_BASIC) [[unlikely]] {
    return KAVO_UNSUPPORTED;
  }
  const BasicTable& table = AsBasic(ref);
  if (valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
  HashValue* const record = table.Find(key);
  if (record == nullptr) {
    return KAVO_INVALID;
  }
  return table.UpdateValue(record, valuePtr, valueLen);
}

int Insert(const BasicTable& table, long key, const unsigned char* valuePtr, unsigned valueLen, unsigned state) {
  if (valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
  BasicTable::OperationInfo info{key, nullptr, MemKind::ORDINARY};
  const int status = table.InsertOrFind(info).second;
  if (status < 0) {
    return status;
  }
  if (status == ENTRY_FOUND) {
    return KAVO_INVALID;
  }
  const int ret = memcpy_s(ValueBytes(info.rawPtr), valueLen, valuePtr, valueLen);
  if (ret != 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "memcpy_s failed, ret = [%d]", ret);
    return KAVO_NO_MEMORY;
  }
  ValueHeader::Store(info.rawPtr, ValueHeader::FromInsertState(state));
  return KAVO_SUCCESS;
}

int InsertOrUpdate(const BasicTable& table, long key, const unsigned char* valuePtr, unsigned valueLen) {
  if (valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
  BasicTable::OperationInfo info{key, nullptr, MemKind::ORDINARY};
  const int status = table.InsertOrFind(info).second;
  if (status < 0) {
    return status;
  }
  if (info.rawPtr == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "rawPtr is nullptr!");
    return KAVO_INVALID;
  }
  const int ret = memcpy_s(ValueBytes(info.rawPtr), valueLen, valuePtr, valueLen);
  if (ret != 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "memcpy_s failed, ret[%d]", ret);
    return KAVO_NO_MEMORY;
  }
  ValueHeader::Store(info.rawPtr, ValueHeader::CHANGED);
  return KAVO_SUCCESS;
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
    const TableRef ref = g_manager->Resolve(static_cast<int>(tableId));
    if (ref.type == TABLE_TYPE_EMPTY) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "tableId[%d] is nullptr", static_cast<int>(tableId));
      return KAVO_INVALID;
    }
    unsigned char* block = nullptr;
    const int ret = FindBlock(ref, key, block);
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "LookUpWithValLen failed, ret[%d] != 0", ret);
      return ret;
    }
    *valuePtr = ValueBytes(block);
    *valueLen = AsBasic(ref).ValueLen();
    return KAVO_SUCCESS;
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
    const TableRef ref = g_manager->Resolve(static_cast<int>(tableId));
    if (ref.type == TABLE_TYPE_EMPTY) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "tableId[%d] is nullptr", static_cast<int>(tableId));
      return KAVO_INVALID;
    }
    unsigned char* block = nullptr;
    const int ret = FindBlock(ref, key, block);
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "LookUpWithValLen failed, ret[%d] != 0", ret);
      return ret;
    }
    *valueLen = AsBasic(ref).ValueLen();
    // The entry counts as changed from here on, before the caller has changed anything.
    ValueHeader::Store(block, ValueHeader::CHANGED);
    *valuePtr = ValueBytes(block);
    return KAVO_SUCCESS;
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
    const TableRef ref = g_manager->Resolve(static_cast<int>(tableId));
    if (ref.type == TABLE_TYPE_EMPTY) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "tableId[%d] is nullptr", static_cast<int>(tableId));
      return KAVO_INVALID;
    }
    const int ret = Update(ref, key, valuePtr, valueLen);
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Update failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoInsert(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen,
               unsigned int /* filterCount */, unsigned int state) {
  if (key < 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoInsert failed, key < 0");
    return KAVO_INVALID;
  }
  try {
    const TableRef ref = g_manager->Resolve(static_cast<int>(tableId));
    if (ref.type == TABLE_TYPE_EMPTY) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "tableId[%d] is nullptr", static_cast<int>(tableId));
      return KAVO_INVALID;
    }
    int ret = KAVO_UNSUPPORTED;
    if (ref.type == TABLE_TYPE_BASIC) [[likely]] {
      if (valuePtr == nullptr) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoInsert failed, valuePtr == nullptr");
        return KAVO_INVALID;
      }
      ret = Insert(AsBasic(ref), key, valuePtr, valueLen, state);
    }
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Insert failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoInsertOrUpdate(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen,
                       unsigned int /* filterCount */) {
  if (key < 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoInsertOrUpdate failed, key < 0");
    return KAVO_INVALID;
  }
  try {
    const TableRef ref = g_manager->Resolve(static_cast<int>(tableId));
    if (ref.type == TABLE_TYPE_EMPTY) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "tableId[%d] is nullptr", static_cast<int>(tableId));
      return KAVO_INVALID;
    }
    int ret = KAVO_UNSUPPORTED;
    if (ref.type == TABLE_TYPE_BASIC) [[likely]] {
      if (valuePtr == nullptr) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoInsertOrUpdate failed, valuePtr == nullptr");
        return KAVO_INVALID;
      }
      ret = InsertOrUpdate(AsBasic(ref), key, valuePtr, valueLen);
    }
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "InsertOrUpdate failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoLookupOrInsert(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen,
                       unsigned int* isFind, unsigned int /* filterCount */) {
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
    const TableRef ref = g_manager->Resolve(static_cast<int>(tableId));
    if (ref.type == TABLE_TYPE_EMPTY) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "tableId[%d] is nullptr", static_cast<int>(tableId));
      return KAVO_INVALID;
    }
    BasicTable::OperationInfo info{key, nullptr, MemKind::PREPARED};
    const int status =
        ref.type == TABLE_TYPE_BASIC ? AsBasic(ref).InsertOrFind(info).second : static_cast<int>(KAVO_UNSUPPORTED);
    if (status < 0) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "LookupOrInsertWithValLen failed, ret[%d]", status);
      return status;
    }
    *valueLen = AsBasic(ref).ValueLen();
    *valuePtr = ValueBytes(info.rawPtr);
    // A new entry whose block came from the prepared stock has a value already: to the caller it is as good as found.
    *isFind = status == ENTRY_FOUND || info.memKind == MemKind::PREPARED ? 1 : 0;
    return KAVO_SUCCESS;
  }
  KAVO_CATCH_ALL
}
