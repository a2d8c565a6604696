#include "ctr_training/trainer.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "program.h"

namespace CtrTraining {
namespace {

// A part of one pass over the log, up to row `end`. Threads share the model, and this: what is touched once a block,
// under a lock.
class Leg {
 public:
  Leg(RowSource& source, const Model& model, const TrainingOptions& options, TrainingState& state, std::uint64_t end)
      : m_source(source),
        m_model(model),
        m_options(options),
        m_end(end),
        m_secondsBefore(state.seconds),
        m_state(state) {}

  void Run() {
    m_source.Seek(m_state.nextRow);
    {
      std::vector<std::jthread> threads;
      for (unsigned i = 0; i < m_options.threads; ++i) {
        threads.emplace_back([this] { Work(); });
      }
    }
    if (m_failure) {
      std::rethrow_exception(m_failure);
    }
    if (m_state.nextRow < m_end) {
      throw std::runtime_error(fmt::format("the log ends after {} rows; it had {}", m_state.nextRow, m_state.log.rows));
    }
  }

 private:
  void Work() noexcept {
    RowBlock block;
    try {
      Learner learner(m_model);
      while (!Stopped() && m_source.Next(block, m_end)) {
        Add(block, learner.PredictThenLearn(block.rows));
      }
    } catch (...) {
      AddFailure(block.firstRow, std::current_exception());
    }
  }

  bool Stopped() {
    const std::lock_guard lock(m_mutex);
    return m_failure != nullptr;
  }

  // Block by block, so that the sums of one thread do not depend on where legs begin and end.
  void Add(const RowBlock& block, std::span<const float> logits) {
    const std::lock_guard lock(m_mutex);
    const std::uint64_t tenths = m_state.nextRow * 10 / m_state.log.rows;
    for (std::size_t i = 0; i < block.rows.size(); ++i) {
      const bool clicked = block.rows[i].clicked;
      m_state.lossSum += LogLoss(logits[i], clicked);
      if (m_state.epoch == 1 && block.firstRow + i >= m_options.firstEvaluated) {
        m_state.metrics.Add(logits[i], clicked);
        m_state.trueLossSum += block.trueLogits.empty() ? 0.0 : LogLoss(block.trueLogits[i], clicked);
      }
    }
    m_state.nextRow += block.rows.size();
    m_state.rows += block.rows.size();
    m_state.seconds = m_secondsBefore + Examples::SecondsSince(m_start);
    if (m_options.report && m_state.nextRow * 10 / m_state.log.rows != tenths) {
      m_options.report(m_state);
    }
  }

  // Blocks are handed out in order and a thread finishes the one it has, so the earliest bad line is always among the
  // failures, however threads run.
  void AddFailure(std::uint64_t firstRow, const std::exception_ptr& failure) {
    const std::lock_guard lock(m_mutex);
    if (!m_failure || firstRow < m_failedRow) {
      m_failedRow = firstRow;
      m_failure = failure;
    }
  }

  RowSource& m_source;
  const Model& m_model;
  const TrainingOptions& m_options;
  const std::uint64_t m_end;
  const double m_secondsBefore;
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();

  std::mutex m_mutex;  // guards what follows, m_state's target included
  std::exception_ptr m_failure;
  std::uint64_t m_failedRow = 0;
  TrainingState& m_state;
};

// Where the next leg ends: at the next multiple of saveEvery, rounded up to a whole block, or at the end of the log.
std::uint64_t EndOfLeg(const TrainingOptions& options, const TrainingState& state) {
  if (options.saveEvery == 0) {
    return state.log.rows;
  }
  const std::uint64_t multiple = (state.nextRow / options.saveEvery + 1) * options.saveEvery;
  return std::min((multiple + BLOCK_ROWS - 1) / BLOCK_ROWS * BLOCK_ROWS, state.log.rows);
}

}  // namespace

void Train(RowSource& source, const Model& model, const TrainingOptions& options, TrainingState& state) {
  state.log = source.Identity();
  while (true) {
    while (state.nextRow < state.log.rows) {
      Leg(source, model, options, state, EndOfLeg(options, state)).Run();
      if (options.saveEvery != 0) {
        options.save(state);
      }
    }
    if (state.epoch >= options.epochs) {
      return;
    }
    ++state.epoch;
    state.nextRow = 0;
    state.lossSum = 0.0;
  }
}

}  // namespace CtrTraining
