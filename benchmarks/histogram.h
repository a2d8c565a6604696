// Counts durations in nanoseconds to within three per cent; the largest is kept exactly.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace Bench {

class Histogram {
 public:
  void Add(std::uint64_t nanoseconds) {
    ++m_counts[std::min<std::size_t>(IndexOf(nanoseconds), BUCKETS - 1)];
    ++m_total;
    m_worst = std::max(m_worst, nanoseconds);
  }

  // The duration that a share of all, 0 to 1, does not exceed.
  std::uint64_t Quantile(double share) const {
    const auto rank = static_cast<std::uint64_t>(share * static_cast<double>(m_total));
    std::uint64_t below = 0;
    for (std::size_t i = 0; i < BUCKETS; ++i) {
      below += m_counts[i];
      if (below > rank) {
        return std::min(UpperEnd(i), m_worst);
      }
    }
    return m_worst;
  }

  std::uint64_t Worst() const { return m_worst; }
  std::uint64_t Total() const { return m_total; }

 private:
  // The first buckets are a nanosecond wide; from 64 on, each doubling has 32 of them.
  static constexpr unsigned SUB_BITS = 5;
  static constexpr std::uint64_t SUB = std::uint64_t{1} << SUB_BITS;
  static constexpr std::size_t BUCKETS = 36 * SUB;

  static std::size_t IndexOf(std::uint64_t value) {
    if (value < 2 * SUB) {
      return value;
    }
    const auto shift = static_cast<unsigned>(std::bit_width(value)) - SUB_BITS - 1;
    return shift * SUB + (value >> shift);
  }
  static std::uint64_t UpperEnd(std::size_t index) {
    if (index < 2 * SUB) {
      return index;
    }
    const std::uint64_t shift = index / SUB - 1;
    return ((index - shift * SUB + 1) << shift) - 1;
  }

  std::array<std::uint64_t, BUCKETS> m_counts{};
  std::uint64_t m_total = 0;
  std::uint64_t m_worst = 0;
};

}  // namespace Bench
