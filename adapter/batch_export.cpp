// The exported functions that give a table's size and hand out its entries in batches. Neither takes the registry's
// lock, nor any that an insert, an update or a lookup would wait for.
#include <cstddef>

#include "adapter/exception_boundary.h"
#include "adapter/table_call.h"
#include "kavo.h"
#include "platform/log.h"

using namespace Qen;

// The records cross the interface: their layout is fixed.
static_assert(sizeof(KavoHtBatchElement) == 24 && alignof(KavoHtBatchElement) == 8);
static_assert(offsetof(KavoHtBatchElement, key) == 0 && sizeof(KavoHtBatchElement::key) == 8);
static_assert(offsetof(KavoHtBatchElement, value) == 8 && sizeof(KavoHtBatchElement::value) == 8);
static_assert(offsetof(KavoHtBatchElement, count) == 16 && sizeof(KavoHtBatchElement::count) == 4);
static_assert(sizeof(KavoHtBatchInfo) == 24 && alignof(KavoHtBatchInfo) == 8);
static_assert(offsetof(KavoHtBatchInfo, elements) == 0 && sizeof(KavoHtBatchInfo::elements) == 8);
static_assert(offsetof(KavoHtBatchInfo, eleNum) == 8 && sizeof(KavoHtBatchInfo::eleNum) == 4);
static_assert(offsetof(KavoHtBatchInfo, exportMode) == 12 && sizeof(KavoHtBatchInfo::exportMode) == 4);
static_assert(offsetof(KavoHtBatchInfo, tableType) == 16 && sizeof(KavoHtBatchInfo::tableType) == 4);
static_assert(KAVO_TABLE_TYPE_BASIC == TABLE_TYPE_BASIC && KAVO_TABLE_TYPE_FILTER == TABLE_TYPE_FILTER);

int KavoGetHtSizeAndVl(unsigned int tableId, unsigned long long* size, unsigned int* valueLen, bool admittedOnly) {
  if (size == nullptr || valueLen == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoGetHtSizeAndVl failed, size == nullptr || valueLen == nullptr");
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) {
      table.GetTableSizeAndVl(*size, *valueLen, admittedOnly);
      return KAVO_SUCCESS;
    });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoGetHtSizeAndVl failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoBatchGetNext(unsigned int tableId, KavoHtBatchInfo* batchInfo, unsigned int* realNum, void** iter) {
  if (batchInfo == nullptr || batchInfo->elements == nullptr || realNum == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoBatchGetNext failed, batchInfo.elements == nullptr || realNum == null");
    return KAVO_INVALID;
  }
  try {
    if (batchInfo->eleNum == 0) {
      *realNum = 0;
      KAVO_LOG_INFO(TABLE_LOG_UNIT, "KavoBatchGetNext end, eleNum == 0.");
      return KAVO_SUCCESS;
    }
    if (iter == nullptr) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoBatchGetNext failed, iter == nullptr");
      return KAVO_INVALID;
    }
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) { return table.GetBatchNext(*batchInfo, *realNum, *iter); });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoBatchGetNext failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}
