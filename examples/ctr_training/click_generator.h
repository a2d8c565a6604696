// An endless click log from a seed, whose true click probabilities are known.
//
// Row r depends on the seed and on r alone, so threads generate their own blocks and a run with any number of threads
// sees the same log. Category fields differ in size from a handful of values to a million, and within a field the k-th
// most frequent value comes up about 1/k as often as the first. The label is drawn from
//
//   logit = intercept + sum of the fields' weights + sum over pairs of fields of <latent vector, latent vector>
//
// where each value of a category field has a weight and, in some fields, a latent vector; an integer field counts by
// the logarithm of its value.
#pragma once

#include <array>
#include <atomic>

#include "ctr_training/click_row.h"

namespace CtrTraining {

class ClickGenerator : public RowSource {
 public:
  ClickGenerator(std::uint64_t rowCount, std::uint64_t seed) : m_rowCount(rowCount), m_seed(seed) {}

  LogIdentity Identity() const override { return {m_rowCount, m_seed}; }
  bool KnowsTruth() const override { return true; }
  void Seek(std::uint64_t row) override { m_nextRow = row; }
  bool Next(RowBlock& block, std::uint64_t end) override;

  // Rows [first, first + count), whether within the log or not.
  void Generate(std::uint64_t first, std::uint64_t count, RowBlock& block) const;

 private:
  ClickRow DrawFields(std::uint64_t row) const;
  double TrueLogit(const ClickRow& row) const;
  std::uint64_t WordOf(std::uint64_t field, std::uint64_t value, std::uint64_t purpose) const;

  const std::uint64_t m_rowCount;
  const std::uint64_t m_seed;
  std::atomic<std::uint64_t> m_nextRow{0};
};

}  // namespace CtrTraining
