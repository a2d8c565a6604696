// The exported functions that give a table's size and hand out its entries in batches. Neither takes the registry's
// lock, nor any that an insert, an update or a lookup would wait for.
#include <cstddef>

#include "adapter/call_frame.h"
#include "kavo.h"

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
  KAVO_REFUSE_IF(size == nullptr || valueLen == nullptr,
                 "KavoGetHtSizeAndVl failed, size == nullptr || valueLen == nullptr");
  const auto count = [&](const auto& table) {
    table.GetTableSizeAndVl(*size, *valueLen, admittedOnly);
    return KAVO_SUCCESS;
  };
  KAVO_SERVE(tableId, count, "KavoGetHtSizeAndVl failed, ret[%d]");
}

int KavoBatchGetNext(unsigned int tableId, KavoHtBatchInfo* batchInfo, unsigned int* realNum, void** iter) {
  KAVO_REFUSE_IF(batchInfo == nullptr || batchInfo->elements == nullptr || realNum == nullptr,
                 "KavoBatchGetNext failed, batchInfo.elements == nullptr || realNum == null");
  if (batchInfo->eleNum == 0) {
    *realNum = 0;
    KAVO_LOG_INFO(TABLE_LOG_UNIT, "KavoBatchGetNext end, eleNum == 0.");
    return KAVO_SUCCESS;
  }
  KAVO_REFUSE_IF(iter == nullptr, "KavoBatchGetNext failed, iter == nullptr");
  const auto next = [&](const auto& table) { return table.GetBatchNext(*batchInfo, *realNum, *iter); };
  KAVO_SERVE(tableId, next, "KavoBatchGetNext failed, ret[%d]");
}
