// What the core needs to know of a key, and a table of its value record.
#pragma once

#include <cstdint>

#include "hash/filter_record.h"
#include "hash/value_record.h"

namespace Qen {

struct KTraits {
  // The bits that choose a key's bucket; keys are not mixed further.
  static std::uint32_t BucketBits(long key) noexcept { return static_cast<std::uint32_t>(key); }
};

struct VTraits {
  static unsigned char* Block(unsigned char& block) noexcept { return &block; }
};

struct FVTraits {
  // Acquire: pairs with the release store at admission, which publishes the block.
  static unsigned char* Block(const FilterRecord& record) noexcept {
    return record.value.load(std::memory_order_acquire);
  }
};

}  // namespace Qen
