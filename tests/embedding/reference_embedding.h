// What an embedding should do, in double precision and in the plainest way: a map from keys to rows.
#pragma once

#include <kavo_embedding.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace Reference {

struct Row {
  std::vector<double> weights;
  std::vector<double> state;
  std::uint64_t step = 0;
};

struct Bags {
  std::vector<unsigned long long> offsets{0};
  std::vector<float> weights;  // empty: none
  bool mean = false;
  bool hasPadding = false;
  long padding = 0;

  KavoBags View() const {
    return {sizeof(KavoBags),
            offsets.size() - 1,
            offsets.data(),
            weights.empty() ? nullptr : weights.data(),
            static_cast<unsigned>(mean ? KAVO_POOL_MEAN : KAVO_POOL_SUM),
            hasPadding ? 1U : 0U,
            padding};
  }

  bool IsPadding(long key) const { return hasPadding && key == padding; }

  // Of each key: its bag, and by what its row is multiplied there.
  struct Place {
    std::size_t bag;
    double factor;
  };
  std::vector<Place> Places(const std::vector<long>& keys) const {
    std::vector<Place> places;
    for (std::size_t bag = 0; bag + 1 < offsets.size(); ++bag) {
      double counted = 0;
      for (std::size_t i = offsets[bag]; i < offsets[bag + 1]; ++i) {
        counted += IsPadding(keys[i]) ? 0 : 1;
      }
      for (std::size_t i = offsets[bag]; i < offsets[bag + 1]; ++i) {
        places.push_back({bag, !weights.empty() ? weights[i] : mean && counted > 0 ? 1 / counted : 1});
      }
    }
    return places;
  }
};

class Embedding {
 public:
  explicit Embedding(const KavoEmbeddingOptions& options) : m_options(options) {}

  const std::map<long, Row>& Rows() const { return m_rows; }
  std::uint64_t Steps() const { return m_steps; }
  void SetRates(const KavoRates& rates) { m_options.rates = rates; }

  const Row* Find(long key) const {
    const auto found = m_rows.find(key);
    return found == m_rows.end() ? nullptr : &found->second;
  }

  std::size_t StateFloats() const {
    switch (m_options.optimiser) {
      case KAVO_OPTIMISER_ADAGRAD:
        return m_options.dim;
      case KAVO_OPTIMISER_ROWWISE_ADAGRAD:
        return 1;
      case KAVO_OPTIMISER_ADAM:
      case KAVO_OPTIMISER_FTRL:
        return std::size_t{2} * m_options.dim;
      default:
        return 0;
    }
  }

  // Offers a key whose row would start with `start`; false when it has no row at this turn.
  bool Offer(long key, unsigned occurrences, std::span<const float> start) {
    std::uint64_t& offered = m_offered[key];
    offered += occurrences;
    if (m_rows.contains(key)) {
      return true;
    }
    if (offered < m_options.admission) {
      return false;
    }
    Row& row = m_rows[key];
    row.weights.assign(start.begin(), start.end());
    row.state = BeginState(row.weights);
    row.step = m_steps + 1;
    return true;
  }

  void Set(long key, std::span<const float> floats) {
    m_offered[key] = std::max<std::uint64_t>(m_offered[key], m_options.admission);
    Row& row = m_rows[key];
    row.weights.assign(floats.begin(), floats.begin() + m_options.dim);
    row.state.assign(floats.begin() + m_options.dim, floats.end());
    row.step = m_steps + 1;
  }

  // Answers how many keys were passed over.
  unsigned long long Step(const std::vector<long>& keys, const std::vector<double>& gradients, double scale) {
    ++m_steps;
    const std::size_t dim = m_options.dim;
    unsigned long long passedOver = 0;
    std::map<long, std::vector<double>> sums;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (!m_rows.contains(keys[i])) {
        ++passedOver;
        continue;
      }
      auto& sum = sums.try_emplace(keys[i], dim, 0.0).first->second;
      for (std::size_t d = 0; d < dim; ++d) {
        sum[d] += gradients[i * dim + d];
      }
    }
    for (auto& [key, sum] : sums) {
      Row& row = m_rows[key];
      for (std::size_t d = 0; d < dim; ++d) {
        sum[d] = sum[d] * scale + m_options.rates.weightDecay * row.weights[d];
      }
      Train(row, sum);
      row.step = m_steps;
    }
    return passedOver;
  }

 private:
  std::vector<double> BeginState(const std::vector<double>& weights) const {
    const double initial = m_options.initialAccumulator;
    std::vector<double> state(StateFloats(), m_options.optimiser == KAVO_OPTIMISER_ADAM ? 0.0 : initial);
    if (m_options.optimiser == KAVO_OPTIMISER_FTRL) {
      for (std::size_t i = 0; i < weights.size(); ++i) {
        const double w = weights[i];
        const double sign = w > 0 ? 1 : w < 0 ? -1 : 0;
        const double divisor = (m_options.rates.ftrlBeta + std::sqrt(initial)) / m_options.rates.learningRate;
        state[i] = -w * (divisor + m_options.rates.l2) - sign * m_options.rates.l1;
      }
    }
    return state;
  }

  // The formulas of kavo_embedding.h, written from the papers once more.
  void Train(Row& row, const std::vector<double>& g) const {
    const KavoRates& rates = m_options.rates;
    const std::size_t dim = m_options.dim;
    const double lr = rates.learningRate;
    double meanOfSquares = 0;
    for (const double x : g) {
      meanOfSquares += x * x / static_cast<double>(dim);
    }
    if (m_options.optimiser == KAVO_OPTIMISER_ROWWISE_ADAGRAD) {
      row.state[0] += meanOfSquares;
    }
    const double t = static_cast<double>(m_steps);
    for (std::size_t d = 0; d < dim; ++d) {
      double& w = row.weights[d];
      switch (m_options.optimiser) {
        case KAVO_OPTIMISER_SGD:
          w = w - lr * g[d];
          break;
        case KAVO_OPTIMISER_ADAGRAD:
          row.state[d] += std::pow(g[d], 2);
          w = w - lr * g[d] / (std::sqrt(row.state[d]) + rates.eps);
          break;
        case KAVO_OPTIMISER_ROWWISE_ADAGRAD:
          w = w - lr * g[d] / (std::sqrt(row.state[0]) + rates.eps);
          break;
        case KAVO_OPTIMISER_ADAM: {
          double& m = row.state[d];
          double& v = row.state[dim + d];
          m += (1 - rates.beta1) * (g[d] - m);
          v += (1 - rates.beta2) * (g[d] * g[d] - v);
          const double corrected = std::sqrt(1 - std::pow(rates.beta2, t)) / (1 - std::pow(rates.beta1, t));
          w = w - lr * corrected * m / (std::sqrt(v) + rates.eps);
          break;
        }
        default: {
          double& z = row.state[d];
          double& n = row.state[dim + d];
          const double before = std::sqrt(n);
          n += g[d] * g[d];
          z += g[d] - (std::sqrt(n) - before) / lr * w;
          const double shrunk = std::max(0.0, std::abs(z) - rates.l1);
          w = shrunk == 0 ? 0 : std::copysign(shrunk, -z) / ((rates.ftrlBeta + std::sqrt(n)) / lr + rates.l2);
        }
      }
    }
  }

  KavoEmbeddingOptions m_options;
  std::map<long, Row> m_rows;
  std::map<long, std::uint64_t> m_offered;  // occurrences of every key
  std::uint64_t m_steps = 0;
};

}  // namespace Reference
