#include "results.h"

namespace Bench {
namespace {

template <class Round, class Get>
double MedianOver(const std::vector<Round>& rounds, const Get& get) {
  std::vector<double> samples;
  for (const Round& round : rounds) {
    samples.push_back(static_cast<double>(get(round)));
  }
  return Median(std::move(samples));
}

}  // namespace

double SubjectLatency::MedianQuantile(Step step, double share) const {
  return MedianOver(rounds, [&](const GrowthLatency& round) { return Of(round, step).Quantile(share); });
}

double SubjectLatency::MedianWorst(Step step) const {
  return MedianOver(rounds, [&](const GrowthLatency& round) { return Of(round, step).Worst(); });
}

double SubjectLatency::Worst(Step step) const {
  double worst = 0;
  for (const GrowthLatency& round : rounds) {
    worst = std::max(worst, static_cast<double>(Of(round, step).Worst()));
  }
  return worst;
}

MachineLimits::Rates Results::MedianLimits() const {
  using Rates = MachineLimits::Rates;
  return {MedianOver(limits, [](const Rates& rates) { return rates.lineNanoseconds; }),
          MedianOver(limits, [](const Rates& rates) { return rates.bytesASecond; }),
          MedianOver(limits, [](const Rates& rates) { return rates.oneThreadLineNanoseconds; }),
          MedianOver(limits, [](const Rates& rates) { return rates.oneThreadBytesASecond; })};
}

double Results::Ratio(const SubjectTimes& subject, Row row) const {
  return times.front().MedianOf(rows[row].comparedWith) / subject.MedianOf(row);
}

double Results::LimitNanoseconds(Row row) const {
  const MachineLimits::Rates rates = MedianLimits();
  const RowInfo& info = rows[row];
  return info.oneThread ? info.lines * rates.oneThreadLineNanoseconds + info.bytes * 1e9 / rates.oneThreadBytesASecond
                        : info.lines * rates.lineNanoseconds + info.bytes * 1e9 / rates.bytesASecond;
}

}  // namespace Bench
