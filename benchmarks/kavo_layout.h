// Kavo's layout in numbers, for what its memory accesses would cost by themselves.
#pragma once

#include <bit>
#include <cstdint>

#include "value.h"

namespace Bench {

inline constexpr std::uint64_t CELL_BYTES = 16;

// A value and its header. Values lie so in the order of their inserts, on 8-byte boundaries.
inline constexpr std::uint64_t BLOCK_BYTES = 8 + VALUE_BYTES;

// Cache lines that a whole value lies on, on average over the eight positions that it can have in a line.
inline constexpr double WHOLE_VALUE_LINES = 1 + 7.0 / 8;

// What an entry of a grown table weighs, about.
inline constexpr std::uint64_t GROWN_ENTRY_BYTES = BLOCK_BYTES + 2 * CELL_BYTES;

// 2.4 cells an entry, rounded up to a power of two.
inline std::uint64_t PreSizedCells(std::uint64_t entries) {
  return std::bit_ceil(entries * 12 / 5);
}

}  // namespace Bench
