// What the user sees: progress while training runs, and the table at the end.
#pragma once

#include <cstdint>
#include <kavo.hpp>

#include "ctr_training/trainer.h"

namespace CtrTraining {

// A bar that is redrawn in place on a terminal; elsewhere a line for every tenth of an epoch.
class ProgressDisplay {
 public:
  ProgressDisplay();
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;
  ~ProgressDisplay();
  void Show(const Progress& progress);

 private:
  void ShowBar(const Progress& progress);
  void ShowLine(const Progress& progress);

  const bool m_terminal;
  bool m_barOpen = false;  // the cursor stands behind a bar
  unsigned m_epoch = 0;
  std::uint64_t m_tenths = 0;  // of the epoch, that had their line
};

struct RunFacts {
  unsigned threads = 0;
  unsigned tableSize = 0;
  unsigned dim = 0;
  unsigned admitAt = 1;
  std::uint64_t firstEvaluated = 0;
  std::uint64_t rowCount = 0;
  bool truthKnown = false;
  std::uint64_t residentBefore = 0;  // bytes, before the tables were made
  std::uint64_t residentAfter = 0;   // bytes, while they still stand
  KavoTableStats weights{};          // of the two tables, at the end
  KavoTableStats vectors{};
};

// Bytes of the process that are in physical memory now.
std::uint64_t ResidentBytes();

// Whether the model learned what could be learned, where the log tells that; there must be something to learn. A model
// that beats the true one has seen the labels that it predicts.
bool GoalMet(const TrainingResult& result, const RunFacts& facts);

void PrintReport(const TrainingResult& result, const RunFacts& facts);

// What it changes to admit features later: the run with every feature against the run with the filter.
void PrintComparison(const TrainingResult& all, const RunFacts& allFacts, const TrainingResult& filtered,
                     const RunFacts& filteredFacts);

}  // namespace CtrTraining
