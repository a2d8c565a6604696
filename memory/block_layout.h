// Where blocks of one size lie in a range of memory:
//
//   base          base + firstAt           base + firstAt + stride
//   | unused      | block 0                | block 1 ...
//
// and of the blocks that carry values, which put the value, not the block, on an 8-byte boundary:
//
//   | 4 unused | header 4 | value bytes ... | padding, redzone | header 4 | value bytes ...
//   0          4          8 = aligned                          4 + stride
//
// Whatever lies between the end of a value and the next header belongs to nobody, which is what lets a sanitizer catch
// a write past the end of a value.
#pragma once

#include <cstddef>
#include <new>

#include "platform/allocation.h"

namespace Qen {

// The value header: the entry's export state.
inline constexpr std::size_t BLOCK_HEADER_BYTES = 4;
inline constexpr std::size_t VALUE_ALIGNMENT = 8;

struct BlockLayout {
  std::size_t stride;
  std::size_t firstAt;

  // Bytes that `count` blocks need. A sum beyond the address space is refused as an allocation would be.
  std::size_t RangeBytes(unsigned long long count) const {
    if (count > (static_cast<std::size_t>(-1) - firstAt) / stride) {
      throw std::bad_alloc();
    }
    return firstAt + static_cast<std::size_t>(count) * stride;
  }

  unsigned char* At(void* base, unsigned long long index) const noexcept {
    return static_cast<unsigned char*>(base) + firstAt + static_cast<std::size_t>(index) * stride;
  }
};

constexpr BlockLayout ValueBlockLayout(unsigned blockSize) noexcept {
  const std::size_t padded = (std::size_t{blockSize} + VALUE_ALIGNMENT - 1) / VALUE_ALIGNMENT * VALUE_ALIGNMENT;
  return {padded + REDZONE_BYTES, VALUE_ALIGNMENT - BLOCK_HEADER_BYTES};
}

// Called when a value block is handed out, not when its range is made: that would touch every page of it.
inline void PoisonBehindValue(unsigned char* block, unsigned blockSize, const BlockLayout& layout) noexcept {
  if constexpr (REDZONE_BYTES > 0) {
    // Up to the 8-byte unit that the next block's header shares with the 4 bytes in front of it.
    unsigned char* const end = block + layout.stride - BLOCK_HEADER_BYTES;
    unsigned char* const valueEnd = block + blockSize;
    PoisonBytes(valueEnd, static_cast<std::size_t>(end - valueEnd));
  }
}

}  // namespace Qen
