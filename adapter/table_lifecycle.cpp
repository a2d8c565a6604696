// The exported functions that create, set up and destroy tables.
#include "adapter/call_frame.h"
#include "adapter/manager.h"
#include "adapter/table_types.h"
#include "kavo.h"
#include "platform/allocation.h"
#include "platform/test_hooks.h"

using namespace Qen;

namespace {

static_assert(KAVO_REHASH_GRADUAL == REHASH_GRADUAL && KAVO_REHASH_WHOLE_TABLE == REHASH_WHOLE_TABLE);

// A block, header included, has a length of 32 bits.
constexpr unsigned MAX_VALUE_LEN = 0xFFFFFFFF - VALUE_HEADER_BYTES;

template <class Table>
void* NewTable(int id, unsigned size, unsigned valueLen) {
  return HeapNew<Table>(id, static_cast<unsigned long long>(size), valueLen);
}

}  // namespace

int KavoInitHashTable(unsigned int tableId, unsigned int size, unsigned int valueLen, unsigned int tableType) {
  KAVO_REFUSE_IF(tableType == TABLE_TYPE_EMPTY || valueLen == 0 || valueLen > MAX_VALUE_LEN,
                 "KavoInitHashTable failed, valueLen should not be 0 or greater than[%u] or tabletype fault[%d]",
                 MAX_VALUE_LEN, static_cast<int>(tableType));
  try {
    const int id = static_cast<int>(tableId);
    if (g_manager->Resolve(id).type != TABLE_TYPE_EMPTY) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "TableId[%d] is existed.", id);
      return KAVO_EXISTS;
    }
    KAVO_REFUSE_IF(tableType != TABLE_TYPE_BASIC && tableType != TABLE_TYPE_FILTER, "TableType err");
    // Built without a lock: making a large table holds nobody up.
    ManagerEle ele(tableType, tableType == TABLE_TYPE_BASIC ? NewTable<BasicTable>(id, size, valueLen)
                                                            : NewTable<FilterTable>(id, size, valueLen));
    KAVO_TEST_POINT("KavoInitHashTable.built");
    if (!g_manager->Register(id, ele)) {
      // Another thread was faster. `ele` still owns the new table and destroys it.
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "TableId[%d] is existed.", id);
      return KAVO_EXISTS;
    }
    return KAVO_SUCCESS;
  }
  KAVO_CATCH_ALL;
}

int KavoUninitHashTable(unsigned int tableId) {
  try {
    const int id = static_cast<int>(tableId);
    KAVO_REFUSE_IF(g_manager->Resolve(id).type == TABLE_TYPE_EMPTY, "TableId[%d] is not exit.", id);
    // The table is destroyed after the lock was given back. Nobody can reach it any more, and freeing a large one
    // would keep the creation and destruction of all others waiting.
    ManagerEle taken = g_manager->Take(id);
    taken.DeleHandle();
    return KAVO_SUCCESS;
  }
  KAVO_CATCH_ALL;
}

int KavoSetRehashMode(unsigned int tableId, unsigned int mode) {
  KAVO_REFUSE_IF(mode != KAVO_REHASH_GRADUAL && mode != KAVO_REHASH_WHOLE_TABLE, "KavoSetRehashMode failed, mode[%u]",
                 mode);
  const auto set = [mode](const auto& table) {
    table.SetRehashType(static_cast<std::uint8_t>(mode));
    return KAVO_SUCCESS;
  };
  KAVO_SERVE(tableId, set, "KavoSetRehashMode failed, ret[%d]");
}

int KavoSetFilterFreq(unsigned int tableId, unsigned int freq) {
  try {
    const int id = static_cast<int>(tableId);
    const TableRef ref = g_manager->Resolve(id);
    KAVO_REFUSE_IF(ref.type == TABLE_TYPE_EMPTY, "TableId[%d] is not exit.", id);
    KAVO_REFUSE_IF(ref.type != TABLE_TYPE_FILTER, "TableId[%d] is not for filter table.", id);
    static_cast<const FilterTable*>(ref.table)->SetFilterFreq(freq);
    return KAVO_SUCCESS;
  }
  KAVO_CATCH_ALL;
}
