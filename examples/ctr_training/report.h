// What the user sees: progress while training runs, and the table at the end.
#pragma once

#include <cstdint>
#include <string>

#include "ctr_training/trainer.h"

namespace CtrTraining {

// A bar that is redrawn in place on a terminal; elsewhere a line for every tenth of an epoch.
class ProgressDisplay {
 public:
  ProgressDisplay();
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;
  ~ProgressDisplay();
  void Show(const TrainingState& state);
  void Say(const std::string& text);

 private:
  void ShowBar(const TrainingState& state);
  void ShowLine(const TrainingState& state);
  void EndBar();

  const bool m_terminal;
  bool m_barOpen = false;  // the cursor stands behind a bar
  std::uint64_t m_epoch = 0;
  std::uint64_t m_tenths = 0;  // of the epoch, that had their line
};

// What came of one training.
struct Outcome {
  TrainingState state;
  std::string optimiser;  // of the vectors
  unsigned threads = 0;
  ModelOptions model;
  std::uint64_t firstEvaluated = 0;
  bool truthKnown = false;
  std::uint64_t residentBefore = 0;  // bytes, before the embeddings were made
  std::uint64_t residentAfter = 0;   // bytes, while they still stand
  KavoEmbeddingStats weights{};      // at the end
  KavoEmbeddingStats vectors{};
};

// Bytes of the process that are in physical memory now.
std::uint64_t ResidentBytes();

// Whether the model learned what could be learned, where the log tells that; there must be something to learn. A model
// that beats the true one has seen the labels that it predicts.
bool GoalMet(const Outcome& outcome);

void PrintReport(const Outcome& outcome);

// What it changes to admit features later: the run with every feature against the run with the filter.
void PrintComparison(const Outcome& all, const Outcome& filtered);

}  // namespace CtrTraining
