#include "ctr_training/model.h"

#include <algorithm>
#include <cmath>
#include <span>

namespace CtrTraining {
namespace {

// Any ids that the process does not use otherwise; below 1024 they are found fastest.
constexpr unsigned WEIGHTS_TABLE = 1;
constexpr unsigned VECTORS_TABLE = 2;

}  // namespace

Model::Model(const ModelOptions& options)
    : m_options(options),
      m_weights(WEIGHTS_TABLE, options.tableSize, LinearParameter::FLOATS * sizeof(float)),
      m_vectors(VECTORS_TABLE, options.tableSize,
                static_cast<unsigned>(VectorParameter::Floats(options.dim) * sizeof(float)),
                options.admitAt > 1 ? kavo::TableType::FILTER : kavo::TableType::BASIC) {
  if (options.admitAt > 1) {
    m_vectors.SetFilterFrequency(options.admitAt);
  }
}

std::uint64_t Model::FeatureCount(bool admittedOnly) const {
  return m_vectors.CountEntries(admittedOnly);
}

Learner::Learner(const Model& model)
    : m_model(model), m_dim(model.Options().dim), m_coordinates(FIELDS * m_dim), m_sum(m_dim), m_gradient(m_dim) {
  m_weights.reserve(FIELDS);
  m_vectors.reserve(FIELDS);
  m_vectorKeys.reserve(FIELDS);
}

double Learner::PredictThenLearn(const FeatureKeys& keys, bool clicked) {
  Find(keys);
  const double logit = Predict();
  const double probability = 1.0 / (1.0 + std::exp(-logit));
  Learn(static_cast<float>(probability - (clicked ? 1.0 : 0.0)));
  return logit;
}

void Learner::Find(const FeatureKeys& keys) {
  m_weights.clear();
  m_vectors.clear();
  m_vectorKeys.clear();
  m_intercept = LinearParameter(m_model.Weights().LookupOrInsert<float>(INTERCEPT_KEY).row.data());
  for (const long key : keys) {
    m_weights.emplace_back(m_model.Weights().LookupOrInsert<float>(key).row.data());
  }
  for (const long key : keys) {
    if (const kavo::Row<float> row = m_model.Vectors().LookupOrInsert<float>(key).row) {
      m_vectors.emplace_back(row.data(), m_dim);
      m_vectorKeys.push_back(key);
    }
  }
  m_lookups += 1 + 2 * keys.size();
}

double Learner::Predict() {
  const ModelOptions& options = m_model.Options();
  float logit = m_intercept.Weight(options.linear);
  std::fill(m_sum.begin(), m_sum.end(), 0.0F);
  for (const LinearParameter& weight : m_weights) {
    logit += weight.Weight(options.linear);
  }
  float squares = 0.0F;
  for (std::size_t i = 0; i < m_vectors.size(); ++i) {
    const std::span<float> vector(&m_coordinates[i * m_dim], m_dim);
    m_vectors[i].Read(m_vectorKeys[i], options.vectors, vector);
    for (unsigned d = 0; d < m_dim; ++d) {
      m_sum[d] += vector[d];
      squares += vector[d] * vector[d];
    }
  }
  // The sum over all pairs in one pass: half of (square of the sum - sum of the squares).
  float interactions = -squares;
  for (const float coordinate : m_sum) {
    interactions += coordinate * coordinate;
  }
  return logit + interactions / 2.0F;
}

void Learner::Learn(float error) {
  const ModelOptions& options = m_model.Options();
  m_intercept.Learn(error, options.linear);
  for (const LinearParameter& weight : m_weights) {
    weight.Learn(error, options.linear);
  }
  for (std::size_t i = 0; i < m_vectors.size(); ++i) {
    const float* vector = &m_coordinates[i * m_dim];
    for (unsigned d = 0; d < m_dim; ++d) {
      m_gradient[d] = error * (m_sum[d] - vector[d]);
    }
    m_vectors[i].Learn(m_gradient, options.vectors);
  }
}

}  // namespace CtrTraining
