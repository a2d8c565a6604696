// The exported functions on single keys. Each failure ends in one log line under the function's name; the steps below
// log causes under theirs.
#include "adapter/call_frame.h"
#include "adapter/key_operations.h"
#include "kavo.h"

using namespace Qen;

int KavoLookup(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen) {
  KAVO_REFUSE_IF(valuePtr == nullptr || valueLen == nullptr,
                 "KavoLookup failed, valuePtr == nullptr || valueLen == nullptr");
  KAVO_REFUSE_IF(key < 0, "KavoLookup failed, key < 0");
  const auto lookup = [&](const auto& table) { return Lookup(table, key, Access::READ, valuePtr, valueLen); };
  KAVO_SERVE(tableId, lookup, "LookUpWithValLen failed, ret[%d] != 0");
}

int KavoLookupForUpdate(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen) {
  KAVO_REFUSE_IF(valuePtr == nullptr || valueLen == nullptr,
                 "KavoLookupForUpdate Failed, valuePtr == nullptr || valueLen == nullptr");
  KAVO_REFUSE_IF(key < 0, "KavoLookupForUpdate Failed, key < 0");
  const auto lookup = [&](const auto& table) { return Lookup(table, key, Access::UPDATE, valuePtr, valueLen); };
  KAVO_SERVE(tableId, lookup, "LookUpWithValLen failed, ret[%d] != 0");
}

int KavoUpdate(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen) {
  KAVO_REFUSE_IF(valuePtr == nullptr, "KavoUpdate failed, valuePtr == nullptr");
  KAVO_REFUSE_IF(key < 0, "KavoUpdate failed, key < 0");
  const auto update = [&](const auto& table) { return Update(table, key, valuePtr, valueLen); };
  KAVO_SERVE(tableId, update, "Update failed, ret[%d]");
}

int KavoInsert(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen, unsigned int filterCount,
               unsigned int state) {
  KAVO_REFUSE_IF(key < 0, "KavoInsert failed, key < 0");
  try {
    KAVO_RESOLVE(ref, tableId);
    KAVO_REFUSE_IF(ref.type == TABLE_TYPE_BASIC && valuePtr == nullptr, "KavoInsert failed, valuePtr == nullptr");
    const Offer offer{key, valuePtr, valueLen, filterCount};
    const auto insert = [&](const auto& table) { return Insert(table, offer, state); };
    KAVO_ANSWER(OnTable(ref, insert), "Insert failed, ret[%d]");
  }
  KAVO_CATCH_ALL;
}

int KavoInsertOrUpdate(unsigned int tableId, long key, unsigned char* valuePtr, unsigned int valueLen,
                       unsigned int filterCount) {
  KAVO_REFUSE_IF(key < 0, "KavoInsertOrUpdate failed, key < 0");
  try {
    KAVO_RESOLVE(ref, tableId);
    KAVO_REFUSE_IF(ref.type == TABLE_TYPE_BASIC && valuePtr == nullptr,
                   "KavoInsertOrUpdate failed, valuePtr == nullptr");
    const Offer offer{key, valuePtr, valueLen, filterCount};
    const auto insertOrUpdate = [&](const auto& table) { return InsertOrUpdate(table, offer); };
    KAVO_ANSWER(OnTable(ref, insertOrUpdate), "InsertOrUpdate failed, ret[%d]");
  }
  KAVO_CATCH_ALL;
}

int KavoLookupOrInsert(unsigned int tableId, long key, unsigned char** valuePtr, unsigned int* valueLen,
                       unsigned int* isFind, unsigned int filterCount) {
  KAVO_REFUSE_IF(valuePtr == nullptr || valueLen == nullptr || isFind == nullptr,
                 "KavoLookupOrInsert failed, valuePtr == nullptr || valueLen == nullptr || isFind == nullptr ");
  KAVO_REFUSE_IF(key < 0, "KavoLookupOrInsert failed, key < 0");
  const auto lookupOrInsert = [&](const auto& table) {
    unsigned char* block = nullptr;
    const int status = LookupOrInsert(table, key, filterCount, block, *isFind);
    if (status == KAVO_SUCCESS) {
      GiveValue(table, block, valuePtr, valueLen);
    }
    return status;
  };
  KAVO_SERVE(tableId, lookupOrInsert, "LookupOrInsertWithValLen failed, ret[%d]");
}
