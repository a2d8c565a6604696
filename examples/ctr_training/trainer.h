// Trains a model on a log from several threads, each row predicted before it is learned.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "ctr_training/click_row.h"
#include "ctr_training/metrics.h"
#include "ctr_training/model.h"

namespace CtrTraining {

struct Progress {
  unsigned epoch = 1;
  std::uint64_t rows = 0;  // of this epoch
  std::uint64_t rowCount = 0;
  double lossSum = 0.0;  // of those rows, each before it was learned
  double seconds = 0.0;  // of this epoch
};

struct TrainingOptions {
  unsigned threads = 1;
  unsigned epochs = 1;
  std::uint64_t firstEvaluated = 0;               // rows from here on are evaluated, in the first epoch
  double reportInterval = 0.1;                    // seconds
  std::function<void(const Progress&)> report{};  // called on the calling thread, at the interval and after each epoch
};

struct TrainingResult {
  Metrics model;                  // over the evaluated rows: rows that the model had never seen
  double trueLoss = 0.0;          // mean log loss of the true model over the same rows, where the log knows it
  std::vector<double> epochLoss;  // mean over all rows of each epoch; only the first is on rows never seen
  std::uint64_t rows = 0;         // of all epochs
  std::uint64_t distinctFeatures = 0;
  std::uint64_t admittedFeatures = 0;  // those that have a vector
  std::uint64_t lookups = 0;
  double seconds = 0.0;
};

// Throws what a training thread threw, for a bad line or a failed call; of several, the one earliest in the log.
TrainingResult Train(RowSource& source, const Model& model, const TrainingOptions& options);

}  // namespace CtrTraining
