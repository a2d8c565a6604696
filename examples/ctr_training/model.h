// A factorisation machine whose parameters all live in Kavo tables:
//
//   logit = intercept + sum of the features' weights + sum over pairs of features of <vector, vector>
//
// One table holds the weights, one the vectors, both keyed by feature. A Model is shared by all threads; each thread
// works through a Learner of its own.
#pragma once

#include <cstdint>
#include <kavo.hpp>
#include <vector>

#include "ctr_training/features.h"
#include "ctr_training/parameters.h"

namespace CtrTraining {

struct ModelOptions {
  unsigned dim = 4;
  unsigned tableSize = 8;  // of both tables at the start; small, to see them grow
  unsigned admitAt = 1;    // a feature gets its vector at this offer; the model does with its weight before
  LinearParameter::Rates linear;
  VectorParameter::Rates vectors;
};

class Model {
 public:
  explicit Model(const ModelOptions& options);

  const ModelOptions& Options() const { return m_options; }
  const kavo::Table& Weights() const { return m_weights; }
  const kavo::Table& Vectors() const { return m_vectors; }

  // Features that turned up, or those of them that have a vector. While no thread trains.
  std::uint64_t FeatureCount(bool admittedOnly) const;

 private:
  const ModelOptions m_options;
  kavo::Table m_weights;
  kavo::Table m_vectors;
};

class Learner {
 public:
  explicit Learner(const Model& model);

  // Gives the logit predicted for the row, and only then learns from its label.
  double PredictThenLearn(const FeatureKeys& keys, bool clicked);

  std::uint64_t Lookups() const { return m_lookups; }

 private:
  void Find(const FeatureKeys& keys);
  double Predict();
  void Learn(float error);

  const Model& m_model;
  const unsigned m_dim;
  std::uint64_t m_lookups = 0;

  // Of the row in work, without the vectors that are not admitted. An address from the table stays good, so a row's
  // keys are looked up once.
  LinearParameter m_intercept{nullptr};
  std::vector<LinearParameter> m_weights;
  std::vector<VectorParameter> m_vectors;
  std::vector<long> m_vectorKeys;    // of the vectors
  std::vector<float> m_coordinates;  // all features' vectors, one after the other
  std::vector<float> m_sum;          // of those vectors
  std::vector<float> m_gradient;
};

}  // namespace CtrTraining
