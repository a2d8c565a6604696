// Trains a click-through model on a click log, every parameter in an embedding that grows as features turn up.
//
//   ctr_training                                on a generated log of 1,000,000 rows
//   ctr_training LOG                            on a log file
//   ctr_training --write-log FILE               writes the generated log instead
//   ctr_training --save DIR --every 100000      saves a snapshot after every 100,000 rows
//   ctr_training --resume DIR --save DIR        goes on from the newest of them
//
// Exits with 1 when a call or a file fails, and when the model learned less than it is meant to from a generated log.
//
// Reading order for the library's sake: model (embeddings, forward, backward), trainer (the threads), checkpoint
// (snapshots).
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include "ctr_training/checkpoint.h"
#include "ctr_training/click_generator.h"
#include "ctr_training/click_log.h"
#include "ctr_training/report.h"
#include "program.h"

namespace CtrTraining {
namespace {

struct Arguments {
  std::string log;
  std::string writeLog;
  std::uint64_t rows = 1'000'000;
  std::uint64_t seed = 1;
  TrainingOptions training;
  ModelOptions model;
  std::string optimiser = "adagrad";
  std::string save;
  std::uint64_t every = 250'000;
  std::string resume;
};

const std::map<std::string, unsigned> OPTIMISERS{{"sgd", KAVO_OPTIMISER_SGD},
                                                 {"adagrad", KAVO_OPTIMISER_ADAGRAD},
                                                 {"rowwise-adagrad", KAVO_OPTIMISER_ROWWISE_ADAGRAD},
                                                 {"adam", KAVO_OPTIMISER_ADAM},
                                                 {"ftrl", KAVO_OPTIMISER_FTRL}};

void Declare(CLI::App& app, Arguments& arguments) {
  TrainingOptions& training = arguments.training;
  ModelOptions& model = arguments.model;
  training.threads = std::clamp(std::thread::hardware_concurrency(), 1U, 1024U);

  CLI::Option* log = app.add_option("log", arguments.log, "Click log to train on; none: a generated one");
  app.add_option("--rows", arguments.rows, "Rows of the generated log")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 40))
      ->excludes(log);
  app.add_option("--seed", arguments.seed, "Seed of the generated log")->excludes(log);
  app.add_option("--write-log", arguments.writeLog, "Write the generated log to this file, and stop")->excludes(log);
  app.add_option("--threads", training.threads, "Training threads")->check(CLI::Range(1U, 1024U));
  app.add_option("--epochs", training.epochs, "Passes over the log; the report is about the first")
      ->check(CLI::Range(1U, 1000U));
  app.add_option("--table-size", model.tableSize, "Rows that the embeddings are first made for")
      ->check(CLI::Range(1U, 1U << 30));
  CLI::Option* admit =
      app.add_option("--admit", model.admitAt,
                     "Train again with vectors for features from this offer on only, and compare; 1: do not")
          ->check(CLI::Range(1U, 1U << 30));
  app.add_option("--dim", model.dim, "Coordinates of a feature's vector")->check(CLI::Range(1U, 256U));
  app.add_option("--optimiser", arguments.optimiser, "How vectors learn (weights learn by FTRL)")
      ->check(CLI::IsMember(&OPTIMISERS));
  app.add_option("--weight-rate", model.weightRate, "Learning rate of the weights")->check(CLI::PositiveNumber);
  app.add_option("--vector-rate", model.vectorRate, "Learning rate of the vectors; none: one for the optimiser")
      ->check(CLI::PositiveNumber);
  CLI::Option* save =
      app.add_option("--save", arguments.save, "Folder to save snapshots in; made if need be")->excludes(admit);
  app.add_option("--every", arguments.every, "Rows from one snapshot to the next, rounded up to whole batches")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 40))
      ->needs(save);
  app.add_option("--resume", arguments.resume, "Folder of snapshots, to go on from the newest")
      ->check(CLI::ExistingDirectory)
      ->excludes(admit);
}

void WriteLog(ClickGenerator& generator, const std::string& file) {
  std::ofstream stream(file);
  stream << ClickLogHeader() << '\n';
  RowBlock block;
  while (stream && generator.Next(block, generator.RowCount())) {
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

// A model of its own, from empty embeddings or a snapshot to the end of the log.
Outcome TrainOnce(RowSource& source, const Arguments& arguments) {
  Outcome outcome;
  outcome.optimiser = arguments.optimiser;
  outcome.threads = arguments.training.threads;
  outcome.model = arguments.model;
  outcome.firstEvaluated = source.RowCount() / 2;
  outcome.truthKnown = source.KnowsTruth();

  const Model model(arguments.model);
  if (!arguments.resume.empty()) {
    outcome.state = Resume(arguments.resume, model, source.Identity());
    fmt::print("resumed at row {} of epoch {}\n", Examples::Count(outcome.state.nextRow), outcome.state.epoch);
  }
  TrainingOptions training = arguments.training;
  training.firstEvaluated = outcome.firstEvaluated;
  training.report = PrintProgress;
  std::optional<Checkpoints> checkpoints;
  if (!arguments.save.empty()) {
    std::error_code ignored;  // other folders, then
    checkpoints.emplace(arguments.save, std::filesystem::equivalent(arguments.save, arguments.resume, ignored));
    training.saveEvery = arguments.every;
    training.save = [&](const TrainingState& state) { fmt::print("{}\n", checkpoints->Save(model, state)); };
  }
  Train(source, model, training, outcome.state);
  outcome.weights = StatsOf(model.Weights());
  outcome.vectors = StatsOf(model.Vectors());
  return outcome;
}

void Run(Arguments& arguments) {
  std::unique_ptr<RowSource> source;
  if (arguments.log.empty()) {
    auto generator = std::make_unique<ClickGenerator>(arguments.rows, arguments.seed);
    if (!arguments.writeLog.empty()) {
      return WriteLog(*generator, arguments.writeLog);
    }
    source = std::move(generator);
  } else {
    source = std::make_unique<ClickLogFile>(arguments.log);
  }

  arguments.model.optimiser = OPTIMISERS.at(arguments.optimiser);
  const unsigned admitAt = std::exchange(arguments.model.admitAt, 1);
  const Outcome all = TrainOnce(*source, arguments);
  PrintReport(all);
  if (admitAt > 1) {
    fmt::print("\nthe same log, with vectors from a feature's offer {} on\n", admitAt);
    arguments.model.admitAt = admitAt;
    const Outcome filtered = TrainOnce(*source, arguments);
    PrintReport(filtered);
    PrintComparison(all, filtered);
  }
  if (!GoalMet(all)) {
    throw std::runtime_error("the goal was not met");
  }
}

}  // namespace
}  // namespace CtrTraining

int main(int argc, char** argv) {
  CLI::App app("Trains a click-through model whose parameters are the rows of two embeddings.", "ctr_training");
  return Examples::Main<CtrTraining::Arguments>(app, argc, argv, CtrTraining::Declare, CtrTraining::Run);
}
