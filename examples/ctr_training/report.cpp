#include "ctr_training/report.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

namespace CtrTraining {
namespace {

constexpr double MIB = 1024.0 * 1024.0;

// The share of the gap that the model is meant to close, by the number of rows; none for shorter logs. Of 60,000 rows
// it closes 45 to 58 % (seeds 1 to 9), and up to 44 % when vectors or weights do not learn.
std::optional<double> GoalFor(std::uint64_t rows) {
  if (rows >= 1'000'000) {
    return 0.70;
  }
  return rows >= 60'000 ? std::optional(0.44) : std::nullopt;
}

// Of the way from the constant rate to the true model, how much the trained model went. None where that is not known.
std::optional<double> GapClosed(const TrainingResult& result, const RunFacts& facts) {
  const double constant = result.model.ConstantLogLoss();
  if (!facts.truthKnown || constant <= result.trueLoss) {
    return std::nullopt;
  }
  return (constant - result.model.MeanLogLoss()) / (constant - result.trueLoss);
}

// 1234567 as 1,234,567.
std::string Count(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t end = text.size(); end > 3;) {
    end -= 3;
    text.insert(end, 1, ',');
  }
  return text;
}

double Rate(std::uint64_t count, double seconds) {
  return seconds > 0.0 ? static_cast<double>(count) / seconds : 0.0;
}

std::string CountRate(std::uint64_t count, double seconds) {
  return Count(static_cast<std::uint64_t>(Rate(count, seconds)));
}

double MeanLoss(const Progress& progress) {
  return progress.rows == 0 ? 0.0 : progress.lossSum / static_cast<double>(progress.rows);
}

void Rule() {
  fmt::print("{:-<72}\n", "");
}
void Line(const char* name, const std::string& value) {
  fmt::print("{:<36}{}\n", name, value);
}

std::string GapText(const TrainingResult& result, const RunFacts& facts) {
  std::string text = fmt::format("{:.1f} %", 100.0 * *GapClosed(result, facts));
  if (const std::optional<double> goal = GoalFor(facts.rowCount)) {
    text += fmt::format(" (goal {:.0f} %: {})", 100.0 * *goal, GoalMet(result, facts) ? "met" : "NOT MET");
  }
  return text;
}

// Bytes that training made resident.
std::uint64_t Grown(const RunFacts& facts) {
  return facts.residentAfter > facts.residentBefore ? facts.residentAfter - facts.residentBefore : 0;
}

// Where both tables' memory is, by the library's own account: of what was taken from the system, touched or not.
void PrintTableMemory(const KavoTableStats& weights, const KavoTableStats& vectors) {
  const auto line = [&](const char* name, auto bytesOf) {
    Line(name, fmt::format("{:.1f} MiB", static_cast<double>(bytesOf(weights) + bytesOf(vectors)) / MIB));
  };
  line("both tables' cells", [](const KavoTableStats& stats) { return stats.cellBytes + stats.mapBytes; });
  line("both tables' values", [](const KavoTableStats& stats) { return stats.valueBytes + stats.filterRecordBytes; });
  line("taken, but not in use", [](const KavoTableStats& stats) { return stats.stockBytes + stats.leftCellBytes; });
}

void PrintQuality(const TrainingResult& result, const RunFacts& facts) {
  const double constant = result.model.ConstantLogLoss();
  const double model = result.model.MeanLogLoss();
  Line("evaluated rows", fmt::format("{} to {} of the log, each predicted before learned",
                                     Count(facts.firstEvaluated + 1), Count(facts.rowCount)));
  Line("log loss of the constant rate", fmt::format("{:.5f}", constant));
  if (facts.truthKnown) {
    Line("log loss of the true model", fmt::format("{:.5f}", result.trueLoss));
  }
  Line("log loss of the trained model", fmt::format("{:.5f}", model));
  if (GapClosed(result, facts)) {
    Line("share of the gap closed", GapText(result, facts));
  }
  Line("AUC", fmt::format("{:.5f}", result.model.Auc()));
  for (std::size_t epoch = 1; epoch < result.epochLoss.size(); ++epoch) {
    Line(fmt::format("epoch {}, rows seen before", epoch + 1).c_str(),
         fmt::format("{:.5f} log loss, no measure of quality", result.epochLoss[epoch]));
  }
}

}  // namespace

ProgressDisplay::ProgressDisplay() : m_terminal(isatty(STDOUT_FILENO) == 1) {}

// After a failure the bar stands unfinished; what follows gets a line of its own.
ProgressDisplay::~ProgressDisplay() {
  if (m_barOpen) {
    fmt::print("\n");
  }
}

void ProgressDisplay::Show(const Progress& progress) {
  m_terminal ? ShowBar(progress) : ShowLine(progress);
  std::fflush(stdout);
}

void ProgressDisplay::ShowBar(const Progress& progress) {
  constexpr std::uint64_t WIDTH = 30;
  const std::uint64_t done = progress.rows * WIDTH / progress.rowCount;
  m_barOpen = progress.rows < progress.rowCount;
  fmt::print("\repoch {} [{:#<{}}{:.<{}}] {:3} %  {:>9} rows/s  log loss {:.4f}{}", progress.epoch, "", done, "",
             WIDTH - done, progress.rows * 100 / progress.rowCount, CountRate(progress.rows, progress.seconds),
             MeanLoss(progress), m_barOpen ? "" : "\n");
}

void ProgressDisplay::ShowLine(const Progress& progress) {
  if (m_epoch != progress.epoch) {
    m_epoch = progress.epoch;
    m_tenths = 0;
  }
  const std::uint64_t tenths = progress.rows * 10 / progress.rowCount;
  if (tenths == m_tenths) {
    return;
  }
  m_tenths = tenths;
  fmt::print("epoch {}: {:>10} of {} rows, {:>9} rows/s, log loss so far {:.4f}\n", progress.epoch,
             Count(progress.rows), Count(progress.rowCount), CountRate(progress.rows, progress.seconds),
             MeanLoss(progress));
}

std::uint64_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::uint64_t total = 0;
  std::uint64_t resident = 0;
  if (!(statm >> total >> resident)) {
    throw std::runtime_error("/proc/self/statm: cannot be read");
  }
  return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

bool GoalMet(const TrainingResult& result, const RunFacts& facts) {
  const std::optional<double> share = GapClosed(result, facts);
  const std::optional<double> goal = GoalFor(facts.rowCount);
  return !facts.truthKnown || !goal || (share && *share >= *goal && *share < 1.0);
}

void PrintReport(const TrainingResult& result, const RunFacts& facts) {
  Rule();
  Line("rows learned", fmt::format("{} in {:.1f} s", Count(result.rows), result.seconds));
  Line("threads", std::to_string(facts.threads));
  Line("distinct features", Count(result.distinctFeatures));
  if (facts.admitAt > 1) {
    Line("of them admitted, with a vector",
         fmt::format("{}, at offer {}", Count(result.admittedFeatures), facts.admitAt));
  }
  Rule();
  PrintQuality(result, facts);
  Rule();
  Line("lookups", fmt::format("{}, {} a second", Count(result.lookups), CountRate(result.lookups, result.seconds)));
  Line("growths", fmt::format("{}, both tables together, from {} entries each",
                              facts.weights.growths + facts.vectors.growths, facts.tableSize));
  Line("resident memory", fmt::format("{:.1f} MiB", static_cast<double>(facts.residentAfter) / MIB));
  PrintTableMemory(facts.weights, facts.vectors);
  if (result.distinctFeatures > 0) {
    const double perFeature = static_cast<double>(Grown(facts)) / static_cast<double>(result.distinctFeatures);
    Line("memory per feature",
         fmt::format("{:.1f} bytes, of which {} are parameters", perFeature,
                     sizeof(float) * (LinearParameter::FLOATS + VectorParameter::Floats(facts.dim))));
  }
  Rule();
}

void PrintComparison(const TrainingResult& all, const RunFacts& allFacts, const TrainingResult& filtered,
                     const RunFacts& filteredFacts) {
  const auto row = [](const char* name, const std::string& left, const std::string& right) {
    fmt::print("{:<36}{:>16}{:>20}\n", name, left, right);
  };
  const auto mib = [](const RunFacts& facts) {
    return fmt::format("{:.1f} MiB", static_cast<double>(Grown(facts)) / MIB);
  };
  const auto loss = [](const TrainingResult& result) { return fmt::format("{:.5f}", result.model.MeanLogLoss()); };
  row("", "every feature", fmt::format("admitted at {}", filteredFacts.admitAt));
  row("features with a vector", Count(all.admittedFeatures), Count(filtered.admittedFeatures));
  row("memory made resident", mib(allFacts), mib(filteredFacts));
  row("log loss of the trained model", loss(all), loss(filtered));
  row("AUC", fmt::format("{:.5f}", all.model.Auc()), fmt::format("{:.5f}", filtered.model.Auc()));
  Rule();
}

}  // namespace CtrTraining
