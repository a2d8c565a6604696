#include "ctr_training/trainer.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

#include "ctr_training/features.h"

namespace CtrTraining {
namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// What one thread adds up on its own, to be merged when it ends.
struct Tally {
  Metrics model;
  double trueLoss = 0.0;
};

// One pass over the log. Threads share the tables, and this: a few numbers under a lock, touched once a block.
class Epoch {
 public:
  Epoch(unsigned number, RowSource& source, const Model& model, const TrainingOptions& options, TrainingResult& result)
      : m_source(source), m_model(model), m_options(options), m_evaluates(number == 1), m_result(result) {
    m_progress.epoch = number;
    m_progress.rowCount = source.RowCount();
  }

  void Run() {
    {
      std::vector<std::jthread> threads;
      m_running = m_options.threads;
      for (unsigned i = 0; i < m_options.threads; ++i) {
        threads.emplace_back([this] { Work(); });
      }
      ReportWhileRunning();
    }
    if (m_failure) {
      std::rethrow_exception(m_failure);
    }
    m_result.rows += m_progress.rows;
    m_result.seconds += m_progress.seconds;
    m_result.epochLoss.push_back(m_progress.lossSum / static_cast<double>(m_progress.rows));
  }

 private:
  void ReportWhileRunning() {
    const auto interval = std::chrono::duration<double>(m_options.reportInterval);
    std::unique_lock lock(m_mutex);
    while (m_running > 0) {
      m_ended.wait_for(lock, interval, [this] { return m_running == 0; });
      m_progress.seconds = SecondsSince(m_start);
      const Progress progress = m_progress;
      const bool failed = m_failure != nullptr;
      lock.unlock();
      if (m_options.report && !failed) {
        m_options.report(progress);
      }
      lock.lock();
    }
  }

  void Work() noexcept {
    RowBlock block;
    try {
      Tally tally;
      Learner learner(m_model);
      while (!Stopped() && m_source.Next(block)) {
        AddProgress(block.rows.size(), LearnBlock(block, learner, tally));
      }
      AddResult(learner, tally);
    } catch (...) {
      AddFailure(block.firstRow, std::current_exception());
    }
    const std::lock_guard lock(m_mutex);
    --m_running;
    m_ended.notify_one();
  }

  double LearnBlock(const RowBlock& block, Learner& learner, Tally& tally) const {
    double loss = 0.0;
    for (std::size_t i = 0; i < block.rows.size(); ++i) {
      const ClickRow& row = block.rows[i];
      const double logit = learner.PredictThenLearn(KeysOf(row), row.clicked);
      loss += LogLoss(logit, row.clicked);
      if (m_evaluates && block.firstRow + i >= m_options.firstEvaluated) {
        tally.model.Add(logit, row.clicked);
        tally.trueLoss += block.trueLogits.empty() ? 0.0 : LogLoss(block.trueLogits[i], row.clicked);
      }
    }
    return loss;
  }

  bool Stopped() {
    const std::lock_guard lock(m_mutex);
    return m_failure != nullptr;
  }

  void AddProgress(std::size_t rows, double loss) {
    const std::lock_guard lock(m_mutex);
    m_progress.rows += rows;
    m_progress.lossSum += loss;
  }

  void AddResult(const Learner& learner, const Tally& tally) {
    const std::lock_guard lock(m_mutex);
    m_result.model.Merge(tally.model);
    m_result.trueLoss += tally.trueLoss;
    m_result.lookups += learner.Lookups();
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
  const bool m_evaluates;
  const Clock::time_point m_start = Clock::now();

  std::mutex m_mutex;  // guards what follows, m_result's target included
  std::condition_variable m_ended;
  unsigned m_running = 0;
  Progress m_progress;
  std::exception_ptr m_failure;
  std::uint64_t m_failedRow = 0;
  TrainingResult& m_result;
};

}  // namespace

TrainingResult Train(RowSource& source, const Model& model, const TrainingOptions& options) {
  TrainingResult result;
  for (unsigned epoch = 1; epoch <= options.epochs; ++epoch) {
    source.Rewind();
    Epoch(epoch, source, model, options, result).Run();
  }
  result.distinctFeatures = model.FeatureCount(false);
  result.admittedFeatures = model.FeatureCount(true);
  if (result.model.Rows() > 0) {
    result.trueLoss /= static_cast<double>(result.model.Rows());
  }
  return result;
}

}  // namespace CtrTraining
