// How rows learn: one class for each optimiser. kavo_embedding.h has the formulas and their sources.
//
// An optimiser is made for one step: rates, the step's number, the scale of the gradients. Its members work on one row,
// which the caller has for itself, and vectorise: elementwise, so the width of the vectors changes no result.
//
//   STATE        floats of state for a row of `dim`
//   Begin        the state of a row that starts with these weights
//   Step         one step with the summed gradient
//
// To add one: its number in kavo_embedding.h, its class here, its lines in ForOptimiser.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "kavo_embedding.h"

namespace Qen {

struct OptimiserInput {
  KavoRates rates;
  float initialAccumulator;
  std::uint64_t step;
  float scale;
};

// The gradient that an optimiser sees.
struct Gradient {
  explicit Gradient(const OptimiserInput& in) noexcept
      : scale(in.scale), decay(static_cast<float>(in.rates.weightDecay)) {}
  float At(float sum, float weight) const noexcept { return sum * scale + decay * weight; }

  float scale;
  float decay;
};

class NoOptimiser {
 public:
  explicit NoOptimiser(const OptimiserInput&) noexcept {}
  static constexpr std::size_t State(std::size_t) noexcept { return 0; }
  void Begin(const float*, float*, std::size_t) const noexcept {}
  void Step(float*, float*, const float*, std::size_t) const noexcept {}
};

class Sgd {
 public:
  explicit Sgd(const OptimiserInput& in) noexcept : m_gradient(in), m_rate(static_cast<float>(in.rates.learningRate)) {}
  static constexpr std::size_t State(std::size_t) noexcept { return 0; }
  void Begin(const float*, float*, std::size_t) const noexcept {}
  void Step(float* __restrict weights, float*, const float* __restrict sums, std::size_t dim) const noexcept {
    for (std::size_t i = 0; i < dim; ++i) {
      weights[i] -= m_rate * m_gradient.At(sums[i], weights[i]);
    }
  }

 private:
  Gradient m_gradient;
  float m_rate;
};

class Adagrad {
 public:
  explicit Adagrad(const OptimiserInput& in) noexcept
      : m_gradient(in),
        m_rate(static_cast<float>(in.rates.learningRate)),
        m_eps(static_cast<float>(in.rates.eps)),
        m_initial(in.initialAccumulator) {}
  static constexpr std::size_t State(std::size_t dim) noexcept { return dim; }
  void Begin(const float*, float* squares, std::size_t dim) const noexcept {
    for (std::size_t i = 0; i < dim; ++i) {
      squares[i] = m_initial;
    }
  }
  void Step(float* __restrict weights, float* __restrict squares, const float* __restrict sums,
            std::size_t dim) const noexcept {
    for (std::size_t i = 0; i < dim; ++i) {
      const float g = m_gradient.At(sums[i], weights[i]);
      squares[i] += g * g;
      weights[i] -= m_rate * (g / (std::sqrt(squares[i]) + m_eps));
    }
  }

 private:
  Gradient m_gradient;
  float m_rate;
  float m_eps;
  float m_initial;
};

class RowwiseAdagrad {
 public:
  explicit RowwiseAdagrad(const OptimiserInput& in) noexcept
      : m_gradient(in),
        m_rate(static_cast<float>(in.rates.learningRate)),
        m_eps(static_cast<float>(in.rates.eps)),
        m_initial(in.initialAccumulator) {}
  static constexpr std::size_t State(std::size_t) noexcept { return 1; }
  void Begin(const float*, float* square, std::size_t) const noexcept { *square = m_initial; }
  void Step(float* __restrict weights, float* __restrict square, const float* __restrict sums,
            std::size_t dim) const noexcept {
    // Eight running sums, so that this vectorises in one order of additions whatever the width of the vectors.
    constexpr std::size_t LANES = 8;
    float lanes[LANES] = {};
    for (std::size_t first = 0; first < dim; first += LANES) {
      for (std::size_t lane = 0; lane < LANES && first + lane < dim; ++lane) {
        const float g = m_gradient.At(sums[first + lane], weights[first + lane]);
        lanes[lane] += g * g;
      }
    }
    const float all = ((lanes[0] + lanes[4]) + (lanes[1] + lanes[5])) + ((lanes[2] + lanes[6]) + (lanes[3] + lanes[7]));
    *square += all / static_cast<float>(dim);
    const float rate = m_rate / (std::sqrt(*square) + m_eps);
    for (std::size_t i = 0; i < dim; ++i) {
      weights[i] -= rate * m_gradient.At(sums[i], weights[i]);
    }
  }

 private:
  Gradient m_gradient;
  float m_rate;
  float m_eps;
  float m_initial;
};

class Adam {
 public:
  explicit Adam(const OptimiserInput& in) noexcept
      : m_gradient(in),
        m_keep1(static_cast<float>(in.rates.beta1)),
        m_keep2(static_cast<float>(in.rates.beta2)),
        m_take1(static_cast<float>(1 - in.rates.beta1)),
        m_take2(static_cast<float>(1 - in.rates.beta2)),
        m_eps(static_cast<float>(in.rates.eps)) {
    const double t = static_cast<double>(in.step);
    m_rate = static_cast<float>(in.rates.learningRate * std::sqrt(1 - std::pow(in.rates.beta2, t)) /
                                (1 - std::pow(in.rates.beta1, t)));
  }
  static constexpr std::size_t State(std::size_t dim) noexcept { return 2 * dim; }
  void Begin(const float*, float* moments, std::size_t dim) const noexcept {
    for (std::size_t i = 0; i < 2 * dim; ++i) {
      moments[i] = 0;
    }
  }
  void Step(float* __restrict weights, float* __restrict moments, const float* __restrict sums,
            std::size_t dim) const noexcept {
    float* const seconds = moments + dim;
    for (std::size_t i = 0; i < dim; ++i) {
      const float g = m_gradient.At(sums[i], weights[i]);
      moments[i] = m_keep1 * moments[i] + m_take1 * g;
      seconds[i] = m_keep2 * seconds[i] + m_take2 * (g * g);
      weights[i] -= m_rate * (moments[i] / (std::sqrt(seconds[i]) + m_eps));
    }
  }

 private:
  Gradient m_gradient;
  float m_keep1;
  float m_keep2;
  float m_take1;
  float m_take2;
  float m_eps;
  float m_rate = 0;  // with both corrections of the moments' start at zero
};

class Ftrl {
 public:
  explicit Ftrl(const OptimiserInput& in) noexcept
      : m_gradient(in),
        m_alpha(static_cast<float>(in.rates.learningRate)),
        m_beta(static_cast<float>(in.rates.ftrlBeta)),
        m_l1(static_cast<float>(in.rates.l1)),
        m_l2(static_cast<float>(in.rates.l2)),
        m_initial(in.initialAccumulator) {}
  static constexpr std::size_t State(std::size_t dim) noexcept { return 2 * dim; }
  void Begin(const float* weights, float* zs, std::size_t dim) const noexcept {
    for (std::size_t i = 0; i < dim; ++i) {
      zs[i] = -(weights[i] * Divisor(m_initial) + Sign(weights[i]) * m_l1);
      zs[dim + i] = m_initial;
    }
  }
  void Step(float* __restrict weights, float* __restrict zs, const float* __restrict sums,
            std::size_t dim) const noexcept {
    float* const ns = zs + dim;
    for (std::size_t i = 0; i < dim; ++i) {
      const float g = m_gradient.At(sums[i], weights[i]);
      const float n = ns[i] + g * g;
      zs[i] += g - (std::sqrt(n) - std::sqrt(ns[i])) / m_alpha * weights[i];
      ns[i] = n;
      const float divisor = Divisor(n);
      const bool shrunk = std::abs(zs[i]) <= m_l1 || divisor == 0;  // 0 without any gradient, beta and l2 yet
      weights[i] = shrunk ? 0 : (Sign(zs[i]) * m_l1 - zs[i]) / divisor;
    }
  }

 private:
  static float Sign(float x) noexcept { return x > 0 ? 1.0F : x < 0 ? -1.0F : 0.0F; }
  float Divisor(float n) const noexcept { return (m_beta + std::sqrt(n)) / m_alpha + m_l2; }

  Gradient m_gradient;
  float m_alpha;
  float m_beta;
  float m_l1;
  float m_l2;
  float m_initial;
};

// use(optimiser) with the class of that number, which was checked.
template <class Use>
decltype(auto) ForOptimiser(unsigned number, const OptimiserInput& input, const Use& use) {
  switch (number) {
    case KAVO_OPTIMISER_SGD:
      return use(Sgd(input));
    case KAVO_OPTIMISER_ADAGRAD:
      return use(Adagrad(input));
    case KAVO_OPTIMISER_ROWWISE_ADAGRAD:
      return use(RowwiseAdagrad(input));
    case KAVO_OPTIMISER_ADAM:
      return use(Adam(input));
    case KAVO_OPTIMISER_FTRL:
      return use(Ftrl(input));
    default:
      return use(NoOptimiser(input));
  }
}

}  // namespace Qen
