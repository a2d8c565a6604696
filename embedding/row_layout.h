// A row as the table keeps it: head (8 bytes), weights, state of the optimiser, and, where rows are counted and the
// table does not count by itself, the count (4 bytes).
#pragma once

#include <cstddef>

#include "embedding/optimisers.h"
#include "embedding/row_head.h"

namespace Qen {

class RowLayout {
 public:
  RowLayout(std::size_t dim, unsigned optimiser, bool counted) noexcept
      : m_dim(dim),
        m_state(ForOptimiser(optimiser, OptimiserInput{}, [dim](const auto& made) { return made.State(dim); })),
        m_counted(counted) {}

  std::size_t Dim() const noexcept { return m_dim; }
  std::size_t Floats() const noexcept { return m_dim + m_state; }
  bool IsCounted() const noexcept { return m_counted; }
  std::size_t Bytes() const noexcept { return CountOffset() + (m_counted ? sizeof(unsigned) : 0); }

  // Of the head and the weights.
  std::size_t WeightBytes() const noexcept { return RowHead::BYTES + m_dim * sizeof(float); }

  static float* Weights(unsigned char* row) noexcept { return reinterpret_cast<float*>(row + RowHead::BYTES); }
  unsigned& Count(unsigned char* row) const noexcept { return *reinterpret_cast<unsigned*>(row + CountOffset()); }

 private:
  std::size_t CountOffset() const noexcept { return RowHead::BYTES + Floats() * sizeof(float); }

  std::size_t m_dim;
  std::size_t m_state;
  bool m_counted;
};

}  // namespace Qen
