#include "ctr_training/metrics.h"

#include <algorithm>
#include <cmath>

namespace CtrTraining {

double LogLoss(double logit, bool clicked) {
  const double margin = clicked ? logit : -logit;
  return std::log1p(std::exp(-std::abs(margin))) + std::max(0.0, -margin);
}

void Metrics::Add(double logit, bool clicked) {
  ++m_rows;
  m_clicks += clicked ? 1 : 0;
  m_loss += LogLoss(logit, clicked);
  constexpr double LARGEST = LARGEST_LOGIT;
  const double bounded = std::clamp(logit, -LARGEST, LARGEST);
  Cell& cell = m_cells[static_cast<std::size_t>((bounded + LARGEST) * CELLS_PER_LOGIT)];
  ++(clicked ? cell.clicked : cell.other);
}

double Metrics::MeanLogLoss() const {
  return m_rows == 0 ? 0.0 : m_loss / static_cast<double>(m_rows);
}

double Metrics::ConstantLogLoss() const {
  if (m_clicks == 0 || m_clicks == m_rows) {
    return 0.0;
  }
  const double rate = static_cast<double>(m_clicks) / static_cast<double>(m_rows);
  return -rate * std::log(rate) - (1.0 - rate) * std::log(1.0 - rate);
}

double Metrics::Auc() const {
  double won = 0.0;
  double othersBelow = 0.0;
  for (const Cell& cell : m_cells) {
    won += cell.clicked * (othersBelow + cell.other / 2.0);
    othersBelow += cell.other;
  }
  const double pairs = static_cast<double>(m_clicks) * static_cast<double>(m_rows - m_clicks);
  return pairs == 0.0 ? 0.5 : won / pairs;
}

}  // namespace CtrTraining
