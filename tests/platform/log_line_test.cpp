// What a statement hands to a sink, and how many lines at the most.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <utility>

#include "platform/log.h"
#include "platform/log_bound.h"
#include "platform/log_sink.h"

namespace {

constexpr char LINE_UNIT[] = "unit.cpp";

// The sink answers every level check with `g_answer`, and treats errno badly.
int g_answer = 0;
int g_lines = 0;

int Enabled(void*, unsigned, int) {
  errno = EIO;
  return g_answer;
}

void Write(void*, unsigned, int, const char*, va_list) {
  errno = EIO;
  ++g_lines;
}

TEST(LogLevel, OnlyTheAnswerOneLetsALineThroughAndOtherwiseNoArgumentIsComputed) {
  const KavoLogSink asked{&Enabled, &Write, nullptr};
  const KavoLogSink unasked{nullptr, &Write, nullptr};
  Qen::SetLogSink(&asked);
  for (const int answer : {1, 0, 2, -1, 257}) {
    SCOPED_TRACE(answer);
    g_answer = answer;
    g_lines = 0;
    int computed = 0;
    errno = ENOENT;
    KAVO_LOG_DEBUG(LINE_UNIT, "%d", ++computed);
    KAVO_LOG_INFO(LINE_UNIT, "%d", ++computed);
    KAVO_LOG_WARN(LINE_UNIT, "%d", ++computed);
    EXPECT_EQ(computed, answer == 1 ? 3 : 0);
    KAVO_LOG_ERROR(LINE_UNIT, "unasked");
    KAVO_LOG_EVENT(LINE_UNIT, "unasked");
    EXPECT_EQ(g_lines, computed + 2);
    EXPECT_EQ(errno, ENOENT);
  }
  g_lines = 0;
  Qen::SetLogSink(&unasked);
  KAVO_LOG_DEBUG(LINE_UNIT, "not without a check");
  KAVO_LOG_INFO(LINE_UNIT, "without a check too");
  EXPECT_EQ(g_lines, 1);
  Qen::SetLogSink(nullptr);
}

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
