// What a filter table keeps for a key: its occurrences, and its block once it was admitted. Created once for each key
// and shared by all copies of its number, so that no move loses an occurrence. Owned by the table's pool.
#pragma once

#include <cstdint>

#include "hash/value_record.h"
#include "platform/atomic.h"

namespace Qen {

struct FilterRecord {
  Atomic<unsigned char*> value{nullptr};  // null until the key is admitted
  Atomic<std::uint32_t> count{0};         // saturates, never wraps
  Atomic<std::uint8_t> admitted{0};
};

// The value record of a filter table's key, and the way from what it points to to the key's block.
using FHashValue = ValueRecord<FilterRecord>;

struct FVTraits {
  // Acquire: pairs with the release store at admission, which publishes the block.
  static unsigned char* Block(const FilterRecord& record) noexcept {
    return record.value.load(std::memory_order_acquire);
  }
};

}  // namespace Qen
