// Trains a model on a log from several threads, each block of rows predicted before it is learned.
#pragma once

#include <cstdint>
#include <functional>

#include "ctr_training/click_row.h"
#include "ctr_training/metrics.h"
#include "ctr_training/model.h"

namespace CtrTraining {

// How far a training is, and what it has seen: all that it needs to go on beside the model. Plain bytes.
struct TrainingState {
  LogIdentity log;
  std::uint64_t epoch = 1;
  std::uint64_t nextRow = 0;  // of this epoch: the rows before it were learned
  double lossSum = 0.0;       // of those rows, each before it was learned
  std::uint64_t rows = 0;     // learned, in all epochs
  double seconds = 0.0;       // spent on them
  Metrics metrics;            // over the evaluated rows: rows that the model had never seen
  double trueLossSum = 0.0;   // of the true model over the same rows, where the log knows it
};

struct TrainingOptions {
  unsigned threads = 1;
  unsigned epochs = 1;
  std::uint64_t firstEvaluated = 0;  // rows from here on are evaluated, in the first epoch
  std::uint64_t saveEvery = 0;       // rows, rounded up to whole blocks; 0: save is not called
  // Called at each tenth of an epoch; and on the calling thread where the state is to be saved, when no thread trains.
  std::function<void(const TrainingState&)> report{};
  std::function<void(const TrainingState&)> save{};
};

// Goes on from `state` to the end of the last epoch. Throws what a training thread threw, for a bad line or a failed
// call; of several, the one earliest in the log.
void Train(RowSource& source, const Model& model, const TrainingOptions& options, TrainingState& state);

}  // namespace CtrTraining
