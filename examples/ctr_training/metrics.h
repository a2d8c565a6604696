// How good predictions are: mean log loss and the area under the ROC curve, in plain bytes that a snapshot
// can keep.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace CtrTraining {

// -log of the probability that the logit gives to what happened; exact for large logits too.
double LogLoss(double logit, bool clicked);

class Metrics {
 public:
  void Add(double logit, bool clicked);

  std::uint64_t Rows() const { return m_rows; }

  // 0 without rows.
  double MeanLogLoss() const;

  // What the best constant prediction would have lost, which is the click rate known in hindsight.
  double ConstantLogLoss() const;

  // The chance that a clicked row is predicted above a row that was not, ties counted half; 0.5 without rows of both
  // kinds. Logits count as tied when they share a cell of about 0.001, and beyond 16 either way.
  double Auc() const;

 private:
  static constexpr std::size_t LARGEST_LOGIT = 16;
  static constexpr std::size_t CELLS_PER_LOGIT = 1024;

  struct Cell {
    std::uint32_t clicked = 0;
    std::uint32_t other = 0;
  };

  std::uint64_t m_rows = 0;
  std::uint64_t m_clicks = 0;
  double m_loss = 0.0;
  std::array<Cell, 2 * LARGEST_LOGIT * CELLS_PER_LOGIT + 1> m_cells{};  // by rising logit
};

}  // namespace CtrTraining
