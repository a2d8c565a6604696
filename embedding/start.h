// Where rows start: each coordinate a pure function of seed, key and coordinate, the same wherever and whenever it is
// asked for. Frozen: rows of snapshots that were never trained are not different from those made anew.
//
// Integers and IEEE basic operations in double precision alone, without contraction (the layer is compiled so), hence
// the same bits on every processor.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Qen {

class Start {
 public:
  // `initialiser` is a KAVO_START_..., checked by the caller.
  Start(unsigned initialiser, float a, float b, std::uint64_t seed) noexcept;

  // `row` gets `dim` floats.
  void Fill(long key, float* row, std::size_t dim) const noexcept;

 private:
  unsigned m_initialiser;
  float m_a;
  float m_b;
  std::uint64_t m_seed;  // mixed
};

}  // namespace Qen
