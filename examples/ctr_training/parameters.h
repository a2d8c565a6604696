// What the value bytes of the two tables mean, and how they learn.
//
// Threads work on one value without a lock. Each float is read and written whole, by relaxed atomic accesses, and a
// step that another thread overwrites is lost: stochastic gradient descent bears that, as collisions are rare beside
// the steps taken. Nothing is published through these floats, so no order between them is needed either.
//
// A new value is all zeros. Both layouts are chosen so that zeros are the right initial state, and no thread ever has
// to initialise a value that others may already be using.
#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>
#include <span>

#include "pseudo_random.h"

namespace CtrTraining {

inline float Load(float& shared) {
  return std::atomic_ref<float>(shared).load(std::memory_order_relaxed);
}
inline void Store(float& shared, float value) {
  std::atomic_ref<float>(shared).store(value, std::memory_order_relaxed);
}

// The weight of one feature, learned by FTRL-proximal: the weight is not stored, but follows from the two sums.
class LinearParameter {
 public:
  static constexpr unsigned FLOATS = 2;

  struct Rates {
    float alpha = 0.12F;
    float beta = 1.0F;
    float l2 = 1.0F;
  };

  explicit LinearParameter(float* value) : m_value(value) {}

  float Weight(const Rates& rates) const { return WeightOf(Load(m_value[0]), Load(m_value[1]), rates); }

  void Learn(float gradient, const Rates& rates) const {
    const float z = Load(m_value[0]);
    const float n = Load(m_value[1]);
    const float grown = n + gradient * gradient;
    const float sigma = (std::sqrt(grown) - std::sqrt(n)) / rates.alpha;
    Store(m_value[0], z + gradient - sigma * WeightOf(z, n, rates));
    Store(m_value[1], grown);
  }

 private:
  static float WeightOf(float z, float n, const Rates& rates) {
    return -z / ((rates.beta + std::sqrt(n)) / rates.alpha + rates.l2);
  }

  float* m_value;
};

// The vector of one feature, learned by Adagrad with one step size for the whole vector. Vectors must start apart from
// each other, or they would all get the same gradients: the start follows from the key, and the value holds what was
// learned since, then the sum of squared gradients.
class VectorParameter {
 public:
  static constexpr unsigned Floats(unsigned dim) { return dim + 1; }

  struct Rates {
    float alpha = 0.08F;
    float beta = 1.0F;
    float start = 0.02F;  // initial coordinates are uniform in [-start, start]
  };

  VectorParameter(float* value, unsigned dim) : m_value(value), m_dim(dim) {}

  void Read(long key, const Rates& rates, std::span<float> coordinates) const {
    std::uint64_t word = static_cast<std::uint64_t>(key);
    for (unsigned d = 0; d < m_dim; ++d) {
      // Four coordinates' starts from one word.
      word = d % 4 == 0 ? PseudoRandom::Mix(word) : word;
      const auto quarter = static_cast<float>((word >> (16 * (d % 4))) & 0xFFFF);
      coordinates[d] = Load(m_value[d]) + rates.start * (quarter / 32767.5F - 1.0F);
    }
  }

  void Learn(std::span<const float> gradient, const Rates& rates) const {
    float squares = Load(m_value[m_dim]);
    for (const float g : gradient) {
      squares += g * g;
    }
    Store(m_value[m_dim], squares);
    const float step = rates.alpha / (rates.beta + std::sqrt(squares));
    for (unsigned d = 0; d < m_dim; ++d) {
      Store(m_value[d], Load(m_value[d]) - step * gradient[d]);
    }
  }

 private:
  float* m_value;
  unsigned m_dim;
};

}  // namespace CtrTraining
