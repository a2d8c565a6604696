// What an update writes into the block of a key that exists.
#pragma once

#include "hash/log_unit.h"
#include "kavo.h"
#include "platform/bounded_copy.h"
#include "table/value_header.h"

namespace Qen {

// The header is written first, so the entry counts as changed even when the copy fails. KAVO_NO_MEMORY, logged.
inline int UpdateValue(unsigned char* block, const unsigned char* src, unsigned len) {
  ValueHeader::Store(block, ValueHeader::CHANGED);
  const int ret = memcpy_s(ValueBytes(block), len, src, len);
  if (ret != 0) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "memcpy_s failed, ret[%d]", ret);
    return KAVO_NO_MEMORY;
  }
  return KAVO_SUCCESS;
}

}  // namespace Qen
