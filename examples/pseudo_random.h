// Reproducible pseudo-random numbers, each made from a word that says what it is for.
#pragma once

#include <cstdint>

namespace PseudoRandom {

// A one-to-one map of 64-bit words in which every input bit reaches every output bit.
constexpr std::uint64_t Mix(std::uint64_t x) {
  x += 0x9E3779B97F4A7C15;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EB;
  return x ^ (x >> 31);
}

// Uniform in [0, 1).
constexpr double UnitInterval(std::uint64_t mixed) {
  return static_cast<double>(mixed >> 11) * 0x1p-53;
}

// Close to normal, mean 0 and variance 1, within 3.47: the sum of the word's four 16-bit quarters.
constexpr double BellCurve(std::uint64_t mixed) {
  constexpr std::uint64_t QUARTER = 0xFFFF;
  constexpr double ROOT_OF_THREE = 1.7320508075688772;
  const std::uint64_t sum =
      (mixed & QUARTER) + ((mixed >> 16) & QUARTER) + ((mixed >> 32) & QUARTER) + ((mixed >> 48) & QUARTER);
  return (static_cast<double>(sum) / static_cast<double>(QUARTER) - 2.0) * ROOT_OF_THREE;
}

}  // namespace PseudoRandom
