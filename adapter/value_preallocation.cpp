// The exported functions through which a caller writes values before it inserts their keys.
#include "adapter/exception_boundary.h"
#include "adapter/table_call.h"
#include "kavo.h"
#include "platform/log.h"

using namespace Qen;

int KavoPrepareMemForValues(unsigned int tableId, unsigned long long* count) {
  if (count == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoPrepareMemForValues failed, count == nullptr");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [count](const auto& table) { return table.PrepareMemForValues(*count); });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoPrepareMemForValues failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoGetMemForValue(unsigned int tableId, unsigned long long index, unsigned char** valuePtr,
                       unsigned int* valueLen) {
  if (valuePtr == nullptr || valueLen == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoGetMemForValue failed, valuePtr == nullptr || valueLen == nullptr");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) {
      unsigned char* block = nullptr;
      const int fetched = table.GetMemForValue(index, block);
      if (fetched == KAVO_SUCCESS) {
        *valueLen = table.ValueLen();
        *valuePtr = ValueBytes(block);
      }
      return fetched;
    });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoGetMemForValue failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}
