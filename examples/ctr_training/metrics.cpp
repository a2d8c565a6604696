#include "ctr_training/metrics.h"

#include <algorithm>
#include <cmath>

namespace CtrTraining {
namespace {

constexpr double LARGEST_LOGIT = 16.0;
constexpr double CELLS_PER_LOGIT = 1024.0;
constexpr auto CELLS = static_cast<std::size_t>(2.0 * LARGEST_LOGIT * CELLS_PER_LOGIT) + 1;

std::size_t CellOf(double logit) {
  const double bounded = std::clamp(logit, -LARGEST_LOGIT, LARGEST_LOGIT);
  return static_cast<std::size_t>((bounded + LARGEST_LOGIT) * CELLS_PER_LOGIT);
}

}  // namespace

double LogLoss(double logit, bool clicked) {
  const double margin = clicked ? logit : -logit;
  return std::log1p(std::exp(-std::abs(margin))) + std::max(0.0, -margin);
}

Metrics::Metrics() : m_cells(CELLS) {}

void Metrics::Add(double logit, bool clicked) {
  ++m_rows;
  m_clicks += clicked ? 1 : 0;
  m_loss += LogLoss(logit, clicked);
  Cell& cell = m_cells[CellOf(logit)];
  ++(clicked ? cell.clicked : cell.other);
}

void Metrics::Merge(const Metrics& other) {
  m_rows += other.m_rows;
  m_clicks += other.m_clicks;
  m_loss += other.m_loss;
  for (std::size_t i = 0; i < m_cells.size(); ++i) {
    m_cells[i].clicked += other.m_cells[i].clicked;
    m_cells[i].other += other.m_cells[i].other;
  }
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
