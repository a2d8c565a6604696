// The exported functions through which a caller writes values before it inserts their keys.
#include "adapter/call_frame.h"
#include "kavo.h"

using namespace Qen;

int KavoPrepareMemForValues(unsigned int tableId, unsigned long long* count) {
  KAVO_REFUSE_IF(count == nullptr, "KavoPrepareMemForValues failed, count == nullptr");
  const auto prepare = [count](const auto& table) { return table.PrepareMemForValues(*count); };
  KAVO_SERVE(tableId, prepare, "KavoPrepareMemForValues failed, ret[%d]");
}

int KavoGetMemForValue(unsigned int tableId, unsigned long long index, unsigned char** valuePtr,
                       unsigned int* valueLen) {
  KAVO_REFUSE_IF(valuePtr == nullptr || valueLen == nullptr,
                 "KavoGetMemForValue failed, valuePtr == nullptr || valueLen == nullptr");
  const auto fetch = [&](const auto& table) {
    unsigned char* block = nullptr;
    const int fetched = table.GetMemForValue(index, block);
    if (fetched == KAVO_SUCCESS) {
      *valueLen = table.ValueLen();
      *valuePtr = ValueBytes(block);
    }
    return fetched;
  };
  KAVO_SERVE(tableId, fetch, "KavoGetMemForValue failed, ret[%d]");
}
