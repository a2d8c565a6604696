#include "embedding/start.h"

#include <algorithm>
#include <cmath>

#include "kavo_embedding.h"

namespace Qen {
namespace {

constexpr std::uint64_t GOLDEN = 0x9E3779B97F4A7C15;

// The finaliser of SplitMix64 (Steele, Lea, Flood, "Fast splittable pseudorandom number generators", 2014). A key's
// coordinates are the outputs of one such generator, which begins at the mixed key.
constexpr std::uint64_t Mix(std::uint64_t x) noexcept {
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EB;
  return x ^ (x >> 31);
}

// In [0, 1), a multiple of 2^-53.
constexpr double Uniform(std::uint64_t bits) noexcept {
  return static_cast<double>(bits >> 11) * 0x1p-53;
}

// The standard normal's quantile at 0.5 + q, for q within two deviations: a rational function of degree 5 in q squared,
// fitted to the exact quantile by least squares. Its error is below 3.3e-9 there.
double NormalQuantile(double q) noexcept {
  constexpr double P[] = {2.506628276122701,   -30.782355608455937, 139.5056635657727,
                          -279.70051545993005, 225.48679147252477,  -40.93397639292759};
  constexpr double Q[] = {
      1.0, -13.327580266868742, 67.30837433842893, -157.62673486399177, 164.54049641502286, -55.90540961194323};
  const double r = q * q;
  double p = P[5];
  double d = Q[5];
  for (int i = 4; i >= 0; --i) {
    p = p * r + P[i];
    d = d * r + Q[i];
  }
  return q * p / d;
}

// How much of the standard normal lies between 0 and two deviations.
constexpr double TWO_DEVIATIONS = 0.47724986805182079;

}  // namespace

Start::Start(unsigned initialiser, float a, float b, std::uint64_t seed) noexcept
    : m_initialiser(initialiser), m_a(a), m_b(b), m_seed(Mix(seed + GOLDEN)) {}

void Start::Fill(long key, float* row, std::size_t dim) const noexcept {
  if (m_initialiser == KAVO_START_ZEROS || m_initialiser == KAVO_START_CONSTANT) {
    std::fill_n(row, dim, m_initialiser == KAVO_START_ZEROS ? 0.0F : m_a);
    return;
  }
  const double a = m_a;
  const double b = m_b;
  std::uint64_t state = Mix(m_seed ^ static_cast<std::uint64_t>(key));
  for (std::size_t i = 0; i < dim; ++i) {
    state += GOLDEN;
    const double u = Uniform(Mix(state));
    if (m_initialiser == KAVO_START_UNIFORM) {
      const float value = static_cast<float>(a + (b - a) * u);
      row[i] = value < m_b ? value : std::max(m_a, std::nextafter(m_b, m_a));  // rounding must not reach the end
    } else {
      row[i] = static_cast<float>(a + b * NormalQuantile((2 * u - 1) * TWO_DEVIATIONS));
    }
  }
}

}  // namespace Qen
