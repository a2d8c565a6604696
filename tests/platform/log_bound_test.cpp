#include "platform/log_bound.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

// The bound is given its time, so the test has a clock of its own. What threads do beside each other, the explorer
// sees.
TEST(LogBound, AllowsTenSecondsAtOnceThenTheRateAndReportsEveryHeldBackLineOnce) {
  using Qen::LogBound;
  constexpr unsigned OFFERED = 100'000;
  static Qen::LogSite sites[4];  // one that has held a line back stays in a list
  Qen::LogSite* site = sites;
  // 7 lines a second do not divide a second into whole nanoseconds. The machine may have just started.
  for (const auto& [rate, startNs] : {std::pair{1ULL, 1ULL}, {7, 1}, {5000, 1}, {100, 1000 * LogBound::SECOND_NS}}) {
    SCOPED_TRACE(rate);
    const LogBound bound(rate);
    // Idle for an hour, it has saved up no more than at first.
    for (const unsigned long long afterSeconds : {0U, 1U, 2U, 3600U}) {
      const unsigned long long nowNs = startNs + afterSeconds * LogBound::SECOND_NS;
      unsigned long long admitted = 0;
      for (unsigned i = 0; i < OFFERED; ++i) {
        admitted += bound.Admit(*site, nowNs) ? 1 : 0;
      }
      EXPECT_EQ(admitted, afterSeconds % 3600 == 0 ? 10 * rate : rate) << afterSeconds;
      EXPECT_EQ(LogBound::TakeUnreported(*site, nowNs), OFFERED - admitted);
      EXPECT_FALSE(bound.Admit(*site, nowNs));
      EXPECT_EQ(LogBound::TakeUnreported(*site, nowNs), 0U) << "too early";
      EXPECT_EQ(LogBound::TakeUnreported(*site, nowNs + LogBound::REPORT_INTERVAL_NS), 1U);
    }
    ++site;
  }
  EXPECT_FALSE(LogBound(0).Limits());
}

}  // namespace
