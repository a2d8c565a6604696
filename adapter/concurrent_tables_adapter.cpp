// The exported functions on single keys: check the arguments, resolve the table, run one table operation, and turn its
// outcome into a status code. Each failure ends in one line under the function's name; the steps below it log causes
// under their own.
#include "adapter/exception_boundary.h"
#include "adapter/key_operations.h"
#include "adapter/table_call.h"
#include "kavo.h"
#include "platform/log.h"

using namespace Qen;

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
      unsigned char* block = nullptr;
      const int status = LookupOrInsert(table, key, filterCount, block, *isFind);
      if (status == KAVO_SUCCESS) {
        GiveValue(table, block, valuePtr, valueLen);
      }
      return status;
    });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "LookupOrInsertWithValLen failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}
