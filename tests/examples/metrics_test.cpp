#include "ctr_training/metrics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace CtrTraining {
namespace {

struct Sample {
  double logit;
  bool clicked;
};

// Logits on a coarse grid, so that there are ties, and noisily in line with the labels.
std::vector<Sample> SomeSamples(unsigned seed, std::size_t count) {
  std::mt19937 random(seed);
  std::normal_distribution<double> noise(0.0, 1.5);
  std::vector<Sample> samples;
  for (std::size_t i = 0; i < count; ++i) {
    const bool clicked = random() % 4 == 0;
    samples.push_back({std::round((noise(random) + (clicked ? 1.0 : 0.0)) * 20.0) / 20.0, clicked});
  }
  return samples;
}

Metrics MetricsOf(const std::vector<Sample>& samples) {
  Metrics metrics;
  for (const auto& [logit, clicked] : samples) {
    metrics.Add(logit, clicked);
  }
  return metrics;
}

double BruteForceAuc(const std::vector<Sample>& samples) {
  double won = 0.0;
  double pairs = 0.0;
  for (const Sample& a : samples) {
    for (const Sample& b : samples) {
      if (a.clicked && !b.clicked) {
        pairs += 1.0;
        won += a.logit > b.logit ? 1.0 : (a.logit == b.logit ? 0.5 : 0.0);
      }
    }
  }
  return won / pairs;
}

TEST(Metrics, AucIsTheShareOfPairsInOrder) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    const std::vector<Sample> samples = SomeSamples(seed, 500);
    EXPECT_NEAR(MetricsOf(samples).Auc(), BruteForceAuc(samples), 1e-12) << "seed " << seed;
  }
  EXPECT_EQ(MetricsOf({{1e9, true}, {-1e9, false}}).Auc(), 1.0);
  EXPECT_EQ(MetricsOf({{-1e9, true}, {1e9, false}}).Auc(), 0.0);
  EXPECT_EQ(MetricsOf({{1.0, true}}).Auc(), 0.5);
}

TEST(Metrics, LogLossIsMinusTheLogOfTheProbabilityOfWhatHappened) {
  for (double logit = -20.0; logit <= 20.0; logit += 0.37) {
    const long double probability = 1.0L / (1.0L + std::exp(-static_cast<long double>(logit)));
    EXPECT_NEAR(LogLoss(logit, true), static_cast<double>(-std::log(probability)), 1e-9);
    EXPECT_NEAR(LogLoss(logit, false), static_cast<double>(-std::log(1.0L - probability)), 1e-9);
  }
  EXPECT_EQ(LogLoss(5000.0, false), 5000.0);
}

TEST(Metrics, ConstantLogLossIsWhatNoConstantBeats) {
  const std::vector<Sample> samples = SomeSamples(1, 2000);
  double best = 1e9;
  for (double constant = -3.0; constant <= 3.0; constant += 0.02) {
    std::vector<Sample> predicted = samples;
    for (Sample& sample : predicted) {
      sample.logit = constant;
    }
    best = std::min(best, MetricsOf(predicted).MeanLogLoss());
  }
  EXPECT_NEAR(MetricsOf(samples).ConstantLogLoss(), best, 1e-4);
}

TEST(Metrics, MergedPartsEqualTheWhole) {
  const std::vector<Sample> samples = SomeSamples(2, 999);
  const auto middle = samples.begin() + 123;
  Metrics parts = MetricsOf({samples.begin(), middle});
  parts.Merge(MetricsOf({middle, samples.end()}));
  const Metrics whole = MetricsOf(samples);
  EXPECT_EQ(parts.Rows(), whole.Rows());
  EXPECT_EQ(parts.Clicks(), whole.Clicks());
  EXPECT_NEAR(parts.MeanLogLoss(), whole.MeanLogLoss(), 1e-12);
  EXPECT_EQ(parts.Auc(), whole.Auc());
}

}  // namespace
}  // namespace CtrTraining
