// What the user sees: a line for every tenth of an epoch, and the table at the end.
#pragma once

#include <cstdint>
#include <string>

#include "ctr_training/trainer.h"

namespace CtrTraining {

void PrintProgress(const TrainingState& state);

// What came of one training.
struct Outcome {
  TrainingState state;
  std::string optimiser;  // of the vectors
  unsigned threads = 0;
  ModelOptions model;
  std::uint64_t firstEvaluated = 0;
  bool truthKnown = false;
  KavoEmbeddingStats weights{};  // at the end
  KavoEmbeddingStats vectors{};
};

// Whether the model learned what could be learned, where the log tells that; there must be something to learn. A model
// that beats the true one has seen the labels that it predicts.
bool GoalMet(const Outcome& outcome);

void PrintReport(const Outcome& outcome);

// What it changes to admit features later: the run with every feature against the run with the filter.
void PrintComparison(const Outcome& all, const Outcome& filtered);

}  // namespace CtrTraining
