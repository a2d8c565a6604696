// Trains a click-through model on a click log, every parameter in a Kavo table that grows as features turn up.
//
//   ctr_training                      on a generated log of 1,000,000 rows
//   ctr_training LOG                  on a log file
//   ctr_training --write-log FILE     writes the generated log instead
//
// Exits with 1 when a call or a file fails, and when the model learned less than it is meant to from a generated log.
//
// Reading order for the library's sake: model (the tables and lookups), parameters (the value bytes), trainer (the
// threads).
#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "ctr_training/click_generator.h"
#include "ctr_training/click_log.h"
#include "ctr_training/model.h"
#include "ctr_training/report.h"
#include "ctr_training/trainer.h"

namespace CtrTraining {
namespace {

struct Arguments {
  std::string log;
  std::string writeLog;
  std::uint64_t rows = 1'000'000;
  std::uint64_t seed = 1;
  TrainingOptions training;
  ModelOptions model;
};

void Declare(CLI::App& app, Arguments& arguments) {
  TrainingOptions& training = arguments.training;
  ModelOptions& model = arguments.model;
  training.threads = std::clamp(std::thread::hardware_concurrency(), 1U, 1024U);

  CLI::Option* log = app.add_option("log", arguments.log, "Click log to train on; none: a generated one");
  app.add_option("--rows", arguments.rows, "Rows of the generated log")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 40))
      ->excludes(log)
      ->capture_default_str();
  app.add_option("--seed", arguments.seed, "Seed of the generated log")->excludes(log)->capture_default_str();
  app.add_option("--write-log", arguments.writeLog, "Write the generated log to this file, and stop")->excludes(log);
  app.add_option("--threads", training.threads, "Training threads")
      ->check(CLI::Range(1U, 1024U))
      ->capture_default_str();
  app.add_option("--epochs", training.epochs, "Passes over the log; the report is about the first")
      ->check(CLI::Range(1U, 1000U))
      ->capture_default_str();
  app.add_option("--table-size", model.tableSize, "Entries that the tables are first made for")
      ->check(CLI::Range(1U, 1U << 30))
      ->capture_default_str();
  app.add_option("--admit", model.admitAt,
                 "Train again with vectors for features from this offer on only, and compare; 1: do not")
      ->check(CLI::Range(1U, 1U << 30))
      ->capture_default_str();
  app.add_option("--dim", model.dim, "Coordinates of a feature's vector")
      ->check(CLI::Range(1U, 256U))
      ->capture_default_str();
  app.add_option("--weight-rate", model.linear.alpha, "Learning rate of the weights")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--vector-rate", model.vectors.alpha, "Learning rate of the vectors")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
}

void WriteLog(ClickGenerator& generator, const std::string& file) {
  std::ofstream stream(file);
  stream << ClickLogHeader() << '\n';
  RowBlock block;
  while (stream && generator.Next(block)) {
    for (const ClickRow& row : block.rows) {
      stream << FormatRow(row) << '\n';
    }
  }
  stream.close();
  if (!stream) {
    throw ClickLogError(fmt::format("{}: cannot be written", file));
  }
  fmt::print("{} rows written to {}\n", generator.RowCount(), file);
}

struct Outcome {
  TrainingResult result;
  RunFacts facts;
};

// A model of its own, from empty tables to the end of the log.
Outcome TrainOnce(RowSource& source, Arguments& arguments) {
  TrainingOptions& training = arguments.training;
  ProgressDisplay display;
  training.report = [&display](const Progress& progress) { display.Show(progress); };

  Outcome outcome;
  RunFacts& facts = outcome.facts;
  facts.threads = training.threads;
  facts.tableSize = arguments.model.tableSize;
  facts.dim = arguments.model.dim;
  facts.admitAt = arguments.model.admitAt;
  facts.firstEvaluated = training.firstEvaluated;
  facts.rowCount = source.RowCount();
  facts.truthKnown = source.KnowsTruth();
  facts.residentBefore = ResidentBytes();

  const Model model(arguments.model);
  outcome.result = Train(source, model, training);
  facts.residentAfter = ResidentBytes();
  facts.weights = model.Weights().Stats();
  facts.vectors = model.Vectors().Stats();
  return outcome;
}

// False if the model learned too little.
bool Run(Arguments& arguments) {
  std::unique_ptr<RowSource> source;
  if (arguments.log.empty()) {
    auto generator = std::make_unique<ClickGenerator>(arguments.rows, arguments.seed);
    if (!arguments.writeLog.empty()) {
      WriteLog(*generator, arguments.writeLog);
      return true;
    }
    source = std::move(generator);
  } else {
    source = std::make_unique<ClickLogFile>(arguments.log);
  }

  arguments.training.firstEvaluated = source->RowCount() / 2;
  const unsigned admitAt = std::exchange(arguments.model.admitAt, 1);
  const Outcome all = TrainOnce(*source, arguments);
  PrintReport(all.result, all.facts);
  if (admitAt > 1) {
    fmt::print("\nthe same log, with vectors from a feature's offer {} on\n", admitAt);
    arguments.model.admitAt = admitAt;
    const Outcome filtered = TrainOnce(*source, arguments);
    PrintReport(filtered.result, filtered.facts);
    PrintComparison(all.result, all.facts, filtered.result, filtered.facts);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    throw std::runtime_error("standard output: cannot be written");
  }
  return GoalMet(all.result, all.facts);
}

}  // namespace
}  // namespace CtrTraining

int main(int argc, char** argv) {
  CLI::App app("Trains a click-through model whose parameters live in Kavo tables.");
  try {
    CtrTraining::Arguments arguments;
    CtrTraining::Declare(app, arguments);
    app.parse(argc, argv);
    if (!CtrTraining::Run(arguments)) {
      fmt::print(stderr, "ctr_training: the goal was not met\n");
      return 1;
    }
    return 0;
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  } catch (const std::exception& error) {
    fmt::print(stderr, "ctr_training: {}\n", error.what());
    return 1;
  }
}
