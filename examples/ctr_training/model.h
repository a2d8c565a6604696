// A factorisation machine whose parameters are the rows of two embeddings, keyed by feature:
//
//   logit = sum of the features' weights + sum over pairs of features of <vector, vector>
//
// A Model is shared by all threads, whose calls may run beside each other; each thread works through a Learner of its
// own.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "ctr_training/click_row.h"
#include "ctr_training/features.h"
#include "embedding.h"

namespace CtrTraining {

struct ModelOptions {
  unsigned dim = 4;
  unsigned tableSize = 8;  // rows that both are made for at the start; small, to see them grow
  unsigned admitAt = 1;    // a feature gets its vector at this offer; the model does with its weight before
  unsigned optimiser = KAVO_OPTIMISER_ADAGRAD;  // of the vectors; weights are learned by FTRL
  double weightRate = 0.12;
  double vectorRate = 0.0;  // 0: one that goes with the optimiser
};

class Model {
 public:
  explicit Model(const ModelOptions& options);

  unsigned Dim() const { return m_dim; }
  const Examples::Embedding& Weights() const { return m_weights; }
  const Examples::Embedding& Vectors() const { return m_vectors; }

  // For snapshots.
  std::array<KavoSnapshotItem, 2> Items() const {
    return {Examples::Item("weights", m_weights), Examples::Item("vectors", m_vectors)};
  }

 private:
  const unsigned m_dim;
  const Examples::Embedding m_weights;  // rows of one float
  const Examples::Embedding m_vectors;
};

class Learner {
 public:
  explicit Learner(const Model& model) : m_model(model), m_dim(model.Dim()), m_sum(m_dim) {}

  // The logits predicted for a batch of rows, in which the model learns from the rows' labels after the prediction.
  std::span<const float> PredictThenLearn(const std::vector<ClickRow>& rows);

 private:
  void Interact(std::size_t row, bool clicked);

  const Model& m_model;
  const unsigned m_dim;

  // Of the batch in work, one after the other.
  std::vector<long> m_weightKeys;             // a row's features, and the intercept's key
  std::vector<unsigned long long> m_offsets;  // of each row's keys in them
  std::vector<long> m_vectorKeys;
  std::vector<float> m_logits;
  std::vector<float> m_errors;
  std::vector<float> m_vectors;
  std::vector<float> m_gradients;  // of the vectors
  std::vector<float> m_sum;        // of one row's vectors
};

}  // namespace CtrTraining
