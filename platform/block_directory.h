// Blocks by number: four bytes name one.
//
// Blocks of one size lie in ranges. The first, the stock, holds as many as were expected; each further one is twice as
// large as the one before, so their number is small and a block's range follows from the bits of its number:
//
//   number   0 ... stock - 1 | then F blocks | then 2 F | then 4 F | ...
//
// CONTRACT. One thread at a time sets ranges (the owner of the memory sees to it); a range never changes. Any number of
// threads may ask for addresses meanwhile. Whoever has a number got it, by whatever way, from the thread that was
// handed the block, and so after the block's range was set: hence no order of its own here.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/atomic.h"

namespace Qen {

using BlockNumber = std::uint32_t;

struct NumberedBlock {
  unsigned char* address = nullptr;
  BlockNumber number = 0;
};

class BlockDirectory {
 public:
  // Two fewer than numbers: whoever keeps a number may need words for two states more.
  static constexpr unsigned long long MAX_BLOCKS = (1ULL << 32) - 2;

  // The first range behind the stock holds `firstCount` blocks, a power of two.
  BlockDirectory(std::size_t stride, unsigned long long firstCount) noexcept
      : m_stride(stride), m_firstCount(firstCount), m_firstWidth(static_cast<unsigned>(std::bit_width(firstCount))) {}
  BlockDirectory(const BlockDirectory&) = delete;
  BlockDirectory& operator=(const BlockDirectory&) = delete;

  unsigned char* At(BlockNumber number) const noexcept {
    if (number < m_stockCount) [[likely]] {
      return m_stock + static_cast<std::size_t>(number) * m_stride;
    }
    const unsigned long long place = number - m_stockCount + m_firstCount;
    // Relaxed: see the contract. An origin may lie outside of all memory, so it is a number and no pointer.
    const std::uintptr_t origin = m_origins[RangeOf(place)].load(std::memory_order_relaxed);
    return reinterpret_cast<unsigned char*>(origin + place * m_stride);  // NOLINT(performance-no-int-to-ptr)
  }

  // Before any number was handed out.
  void SetStock(unsigned char* first, unsigned long long count) noexcept {
    m_stock = first;
    m_stockCount = count;
  }

  // Ranges behind the stock, from 0.
  unsigned long long RangeCount(unsigned range) const noexcept { return m_firstCount << range; }
  unsigned long long RangeStart(unsigned range) const noexcept {
    return m_stockCount + RangeCount(range) - m_firstCount;
  }
  void SetRange(unsigned range, unsigned char* first) noexcept {
    // Relaxed: see the contract.
    m_origins[range].store(reinterpret_cast<std::uintptr_t>(first) - RangeCount(range) * m_stride,
                           std::memory_order_relaxed);
  }

 private:
  // Places are numbers counted so that range r begins at m_firstCount << r.
  unsigned RangeOf(unsigned long long place) const noexcept {
    return static_cast<unsigned>(std::bit_width(place)) - m_firstWidth;
  }

  // Fixed before any number was handed out.
  const std::size_t m_stride;
  const unsigned long long m_firstCount;
  const unsigned m_firstWidth;
  unsigned char* m_stock = nullptr;
  unsigned long long m_stockCount = 0;

  // Where each range would begin if its places were counted from 0.
  Atomic<std::uintptr_t> m_origins[33]{};
};

}  // namespace Qen
