#include "ctr_training/click_generator.h"

#include <algorithm>
#include <cmath>

#include "pseudo_random.h"

namespace CtrTraining {
namespace {

using PseudoRandom::BellCurve;
using PseudoRandom::Mix;
using PseudoRandom::UnitInterval;

constexpr std::uint64_t FIRST_ID = 10'000'000;

constexpr double INTERCEPT = -1.6;
constexpr std::size_t LATENT_DIM = 3;

// What a word of the true model is used for; latent coordinates follow from LATENT_WORD on.
constexpr std::uint64_t WEIGHT_WORD = 0;
constexpr std::uint64_t LATENT_WORD = 1;

struct IntegerShape {
  double emptyShare;
  double centre;  // of log2(value + 1)
  double spread;
  double slope;  // logit for one standard deviation of log2(value + 1)
};

struct CategoryShape {
  std::uint32_t values;
  double emptyShare;
  double weight;  // standard deviation of the values' weights
  double latent;  // standard deviation of the latent coordinates; 0: the field takes no part in interactions
};

constexpr std::array<IntegerShape, INTEGER_FIELDS> INTEGERS{{
    {0.40, 1.5, 1.5, 0.25},
    {0.00, 3.0, 2.5, -0.15},
    {0.20, 3.0, 1.5, 0.00},
    {0.20, 2.5, 1.5, 0.15},
    {0.02, 11.0, 3.0, -0.2},
    {0.20, 5.0, 2.0, -0.25},
    {0.05, 2.5, 2.0, 0.30},
    {0.00, 3.0, 1.5, 0.00},
    {0.05, 6.0, 2.0, 0.10},
    {0.40, 0.5, 0.7, 0.20},
    {0.05, 1.5, 1.2, 0.15},
    {0.75, 0.5, 1.0, 0.00},
    {0.20, 2.5, 1.5, -0.20},
}};

constexpr std::array<CategoryShape, CATEGORY_FIELDS> CATEGORIES{{
    {1'000, 0.00, 0.35, 0.35},  {500, 0.00, 0.35, 0.35},   {1'000'000, 0.03, 0.15, 0.0}, {200'000, 0.03, 0.15, 0.0},
    {300, 0.00, 0.30, 0.0},     {20, 0.10, 0.30, 0.35},    {10'000, 0.00, 0.30, 0.0},    {600, 0.00, 0.30, 0.0},
    {3, 0.00, 0.30, 0.35},      {40'000, 0.00, 0.20, 0.0}, {5'000, 0.00, 0.30, 0.0},     {700'000, 0.03, 0.15, 0.0},
    {3'000, 0.00, 0.30, 0.0},   {26, 0.00, 0.30, 0.35},    {10'000, 0.00, 0.25, 0.0},    {400'000, 0.03, 0.15, 0.0},
    {10, 0.00, 0.35, 0.35},     {4'000, 0.00, 0.25, 0.0},  {2'000, 0.45, 0.30, 0.0},     {4, 0.45, 0.30, 0.35},
    {500'000, 0.03, 0.15, 0.0}, {15, 0.75, 0.30, 0.0},     {15, 0.00, 0.35, 0.35},       {80'000, 0.00, 0.20, 0.0},
    {80, 0.45, 0.30, 0.0},      {50'000, 0.45, 0.20, 0.0},
}};

// A row's own stream of words.
class Stream {
 public:
  explicit Stream(std::uint64_t start) : m_state(start) {}
  std::uint64_t Word() { return Mix(m_state++); }
  double Unit() { return UnitInterval(Word()); }

 private:
  std::uint64_t m_state;
};

// The rank of a value, 0 the most frequent: the logarithm of rank + 1 is uniform, so the k-th value has a share of
// about 1 / (k ln values).
std::uint32_t DrawRank(std::uint32_t values, double unit) {
  const double rank = std::exp(unit * std::log1p(values)) - 1.0;
  return std::min(static_cast<std::uint32_t>(rank), values - 1);
}

// Spreads ranks over all 32-bit numbers without letting two meet.
std::uint32_t CategoryOf(std::size_t field, std::uint32_t rank) {
  std::uint32_t x = rank ^ static_cast<std::uint32_t>(Mix(field));
  x = (x ^ (x >> 16)) * 0x85EBCA6B;
  x = (x ^ (x >> 13)) * 0xC2B2AE35;
  return x ^ (x >> 16);
}

// Field 2 counts from -2, as some counters of real logs do.
constexpr std::int64_t LowestOf(std::size_t field) {
  return field == 1 ? -2 : 0;
}

}  // namespace

std::uint64_t ClickGenerator::WordOf(std::uint64_t field, std::uint64_t value, std::uint64_t purpose) const {
  return Mix(Mix(m_seed + Mix(field)) ^ (value << 8 | purpose));
}

ClickRow ClickGenerator::DrawFields(std::uint64_t row) const {
  Stream stream(Mix(m_seed ^ Mix(row)));
  ClickRow drawn;
  drawn.id = FIRST_ID + row;
  for (std::size_t i = 0; i < INTEGER_FIELDS; ++i) {
    const IntegerShape& shape = INTEGERS[i];
    const bool empty = stream.Unit() < shape.emptyShare;
    const double magnitude = std::exp2(std::max(0.0, shape.centre + shape.spread * BellCurve(stream.Word())));
    if (!empty) {
      drawn.integers[i] = static_cast<std::int64_t>(magnitude) - 1 + LowestOf(i);
    }
  }
  for (std::size_t i = 0; i < CATEGORY_FIELDS; ++i) {
    const CategoryShape& shape = CATEGORIES[i];
    const bool empty = stream.Unit() < shape.emptyShare;
    const std::uint32_t rank = DrawRank(shape.values, stream.Unit());
    if (!empty) {
      drawn.categories[i] = CategoryOf(i, rank);
    }
  }
  return drawn;
}

double ClickGenerator::TrueLogit(const ClickRow& row) const {
  double logit = INTERCEPT;
  for (std::size_t i = 0; i < INTEGER_FIELDS; ++i) {
    const IntegerShape& shape = INTEGERS[i];
    if (row.integers[i]) {
      const double size = std::log2(static_cast<double>(*row.integers[i] - LowestOf(i) + 1));
      logit += shape.slope * (size - shape.centre) / shape.spread;
    }
  }
  // The sum over all pairs of fields, in one pass: half of (square of the sum - sum of the squares).
  std::array<double, LATENT_DIM> sum{};
  double squares = 0.0;
  for (std::size_t i = 0; i < CATEGORY_FIELDS; ++i) {
    const CategoryShape& shape = CATEGORIES[i];
    if (!row.categories[i]) {
      continue;
    }
    const std::uint32_t category = *row.categories[i];
    logit += shape.weight * BellCurve(WordOf(i, category, WEIGHT_WORD));
    for (std::size_t d = 0; d < LATENT_DIM && shape.latent > 0.0; ++d) {
      const double coordinate = shape.latent * BellCurve(WordOf(i, category, LATENT_WORD + d));
      sum[d] += coordinate;
      squares += coordinate * coordinate;
    }
  }
  double interactions = -squares;
  for (const double coordinate : sum) {
    interactions += coordinate * coordinate;
  }
  return logit + interactions / 2.0;
}

void ClickGenerator::Generate(std::uint64_t first, std::uint64_t count, RowBlock& block) const {
  block.firstRow = first;
  block.rows.clear();
  block.trueLogits.clear();
  for (std::uint64_t row = first; row < first + count; ++row) {
    ClickRow drawn = DrawFields(row);
    const double logit = TrueLogit(drawn);
    // The label's own draw, apart from the fields'.
    const double unit = UnitInterval(Mix(Mix(m_seed + 1) ^ row));
    drawn.clicked = unit < 1.0 / (1.0 + std::exp(-logit));
    block.rows.push_back(drawn);
    block.trueLogits.push_back(logit);
  }
}

bool ClickGenerator::Next(RowBlock& block, std::uint64_t end) {
  // Relaxed: the number is all that threads share; the rows follow from it.
  const std::uint64_t first = m_nextRow.fetch_add(BLOCK_ROWS, std::memory_order_relaxed);
  if (first >= std::min(end, m_rowCount)) {
    return false;
  }
  Generate(first, std::min(BLOCK_ROWS, m_rowCount - first), block);
  return true;
}

}  // namespace CtrTraining
