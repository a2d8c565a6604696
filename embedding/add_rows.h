// Sums of rows.
#pragma once

#include <cstddef>
#include <cstring>

namespace Qen {

// Four floats in a register, on every kind of processor that the compilers know.
using FourFloats = float __attribute__((vector_size(16)));

inline FourFloats LoadFour(const float* from) noexcept {
  FourFloats four;
  std::memcpy(&four, from, sizeof(four));
  return four;
}
inline void StoreFour(float* to, FourFloats four) noexcept {
  std::memcpy(to, &four, sizeof(four));
}

// sum += rows[0] + rows[1] + ... + rows[num - 1], in this order; each times its factor, if there are factors. Sixteen
// sums at a time stay in registers meanwhile.
inline void AddRows(float* sum, const float* const* rows, const float* factors, std::size_t num,
                    std::size_t dim) noexcept {
  constexpr std::size_t PIECE = 16;
  std::size_t at = 0;
  for (; at + PIECE <= dim; at += PIECE) {
    FourFloats sums[4] = {LoadFour(sum + at), LoadFour(sum + at + 4), LoadFour(sum + at + 8), LoadFour(sum + at + 12)};
    for (std::size_t k = 0; k < num; ++k) {
      const float* const row = rows[k] + at;
      FourFloats floats[4] = {LoadFour(row), LoadFour(row + 4), LoadFour(row + 8), LoadFour(row + 12)};
      for (int i = 0; i < 4; ++i) {
        sums[i] += factors == nullptr ? floats[i] : factors[k] * floats[i];
      }
    }
    for (std::size_t i = 0; i < 4; ++i) {
      StoreFour(sum + at + 4 * i, sums[i]);
    }
  }
  for (; at < dim; ++at) {
    for (std::size_t k = 0; k < num; ++k) {
      sum[at] += factors == nullptr ? rows[k][at] : factors[k] * rows[k][at];
    }
  }
}

}  // namespace Qen
