#include "ctr_training/model.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace CtrTraining {
namespace {

// Both embeddings are called from many threads, so none needs threads of its own.
KavoEmbeddingOptions Common(unsigned dim, unsigned optimiser, const ModelOptions& options) {
  KavoEmbeddingOptions common = Examples::Defaults(dim, optimiser);
  common.expected = options.tableSize;
  common.threads = 1;
  return common;
}

KavoEmbeddingOptions WeightOptions(const ModelOptions& options) {
  KavoEmbeddingOptions weights = Common(1, KAVO_OPTIMISER_FTRL, options);
  weights.initialiser = KAVO_START_ZEROS;
  weights.rates.learningRate = options.weightRate;
  weights.rates.l2 = 1.0;
  return weights;
}

// The best of a few tried on the generated log, 1,000,000 rows.
double VectorRate(unsigned optimiser) {
  switch (optimiser) {
    case KAVO_OPTIMISER_SGD:
      return 0.003;
    case KAVO_OPTIMISER_ADAM:
      return 0.001;
    default:
      return 0.05;
  }
}

// Vectors must start apart from each other, or they would all get the same gradients.
KavoEmbeddingOptions VectorOptions(const ModelOptions& options) {
  KavoEmbeddingOptions vectors = Common(options.dim, options.optimiser, options);
  vectors.startA = -0.02F;
  vectors.startB = 0.02F;
  vectors.admission = options.admitAt;
  vectors.rates.learningRate = options.vectorRate > 0.0 ? options.vectorRate : VectorRate(options.optimiser);
  if (options.optimiser == KAVO_OPTIMISER_ADAGRAD || options.optimiser == KAVO_OPTIMISER_ROWWISE_ADAGRAD) {
    vectors.rates.eps = 1.0;  // small first steps: rare features have few others
  }
  return vectors;
}

}  // namespace

Model::Model(const ModelOptions& options)
    : m_dim(options.dim),
      m_weights(Examples::Make(WeightOptions(options))),
      m_vectors(Examples::Make(VectorOptions(options))) {}

std::span<const float> Learner::PredictThenLearn(const std::vector<ClickRow>& rows) {
  m_weightKeys.clear();
  m_vectorKeys.clear();
  m_offsets.assign(1, 0);
  for (const ClickRow& row : rows) {
    const FeatureKeys keys = KeysOf(row);
    m_vectorKeys.insert(m_vectorKeys.end(), keys.begin(), keys.end());
    m_weightKeys.insert(m_weightKeys.end(), keys.begin(), keys.end());
    m_weightKeys.push_back(INTERCEPT_KEY);
    m_offsets.push_back(m_weightKeys.size());
  }
  m_logits.resize(rows.size());
  m_errors.resize(rows.size());
  m_vectors.resize(m_vectorKeys.size() * m_dim);
  m_gradients.resize(m_vectors.size());

  // The weights of a row are wanted as their sum: a bag.
  KavoBags bags{};
  bags.size = sizeof(bags);
  bags.num = rows.size();
  bags.offsets = m_offsets.data();
  KavoEmbedding* const weights = m_model.Weights().get();
  KavoEmbedding* const vectors = m_model.Vectors().get();
  Examples::Check(
      KavoEmbeddingForwardBags(weights, m_weightKeys.data(), m_weightKeys.size(), &bags, m_logits.data(), nullptr));
  Examples::Check(
      KavoEmbeddingForward(vectors, m_vectorKeys.data(), m_vectorKeys.size(), nullptr, m_vectors.data(), nullptr));
  for (std::size_t row = 0; row < rows.size(); ++row) {
    Interact(row, rows[row].clicked);
  }
  // The gradient of each of a row's weights is the row's error.
  Examples::Check(KavoEmbeddingBackwardBags(weights, m_weightKeys.data(), m_weightKeys.size(), &bags, m_errors.data(),
                                            1.0F, nullptr, nullptr));
  Examples::Check(
      KavoEmbeddingBackward(vectors, m_vectorKeys.data(), m_vectorKeys.size(), m_gradients.data(), 1.0F, nullptr));
  return m_logits;
}

// Adds the interactions of a row's vectors to its logit; then the row's error and the vectors' gradients are known.
void Learner::Interact(std::size_t row, bool clicked) {
  const float* const vectors = &m_vectors[row * FIELDS * m_dim];
  float* const gradients = &m_gradients[row * FIELDS * m_dim];
  std::fill(m_sum.begin(), m_sum.end(), 0.0F);
  float squares = 0.0F;
  for (const float* vector = vectors; vector != vectors + FIELDS * m_dim; vector += m_dim) {
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
  m_logits[row] += interactions / 2.0F;
  if (!std::isfinite(m_logits[row])) {
    throw std::runtime_error("the model diverges: smaller rates may help");
  }
  m_errors[row] = 1.0F / (1.0F + std::exp(-m_logits[row])) - (clicked ? 1.0F : 0.0F);
  for (std::size_t first = 0; first < FIELDS * m_dim; first += m_dim) {
    for (unsigned d = 0; d < m_dim; ++d) {
      gradients[first + d] = m_errors[row] * (m_sum[d] - vectors[first + d]);
    }
  }
}

}  // namespace CtrTraining
