// Everything that a run measured.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "growth_latency.h"
#include "machine_limits.h"
#include "resident.h"
#include "workload_rows.h"

namespace Bench {

// The middle one, or of an even number the mean of the middle two.
template <class T>
double Median(std::vector<T> samples) {
  std::sort(samples.begin(), samples.end());
  const std::size_t half = samples.size() / 2;
  const auto upper = static_cast<double>(samples[half]);
  return samples.size() % 2 == 1 ? upper : (static_cast<double>(samples[half - 1]) + upper) / 2;
}

struct SubjectTimes {
  std::string name;
  std::array<std::vector<double>, ROWS> nanoseconds;  // an operation, one sample a round; empty where there is none

  bool Has(Row row) const { return !nanoseconds[row].empty(); }
  double MedianOf(Row row) const { return Median(nanoseconds[row]); }
};

struct SubjectLatency {
  std::string name;
  std::vector<GrowthLatency> rounds;

  enum class Step { INSERT, LOOKUP };

  // Over the rounds.
  double MedianQuantile(Step step, double share) const;
  double MedianWorst(Step step) const;
  double Worst(Step step) const;

  static const Histogram& Of(const GrowthLatency& round, Step step) {
    return step == Step::INSERT ? round.inserts : round.lookups;
  }
};

struct SubjectResident {
  std::string name;
  Fill fill;
  Resident resident;
};

struct Results {
  std::uint64_t entries = 0;
  unsigned threads = 0;
  unsigned rounds = 0;
  unsigned latencyRounds = 0;
  std::array<RowInfo, ROWS> rows{};
  std::uint64_t limitRangeBytes = 0;
  std::vector<MachineLimits::Rates> limits;  // one a round
  std::vector<SubjectTimes> times;           // the first is the measure of all
  std::vector<SubjectLatency> latencies;
  std::vector<SubjectResident> residents;
  double seconds = 0;

  // Medians over the rounds.
  MachineLimits::Rates MedianLimits() const;
  // How much faster than the measure in the row that this one is compared with.
  double Ratio(const SubjectTimes& subject, Row row) const;
  // What the lines and bytes of an operation would cost at the machine's rates.
  double LimitNanoseconds(Row row) const;
};

}  // namespace Bench
