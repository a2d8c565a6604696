#include "platform/log_bound.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/log.h"

namespace {

using Qen::LogBound;
using Qen::LogSite;

// The bound is given its time, so these tests have a clock of their own.
constexpr unsigned long long START_NS = 1000 * LogBound::SECOND_NS;

// Offers lines at one moment until one is held back; answers how many were let through.
unsigned long long Drain(const LogBound& bound, LogSite& site, unsigned long long nowNs) {
  unsigned long long admitted = 0;
  while (admitted < 1'000'000 && bound.Admit(site, nowNs)) {
    ++admitted;
  }
  return admitted;
}

TEST(LogBoundTest, AllowsTenSecondsAtOnceThenTheRateAndSavesUpNoMoreThanThat) {
  for (const unsigned long long rate : {1ULL, 100ULL, 7ULL, 5000ULL}) {
    SCOPED_TRACE(rate);
    static LogSite sites[4];
    static unsigned used = 0;
    LogSite& site = sites[used++];
    const LogBound bound(rate);
    ASSERT_TRUE(bound.Limits());
    EXPECT_EQ(Drain(bound, site, START_NS), 10 * rate);
    EXPECT_EQ(Drain(bound, site, START_NS), 0u);

    // 7 lines a second do not divide a second into whole nanoseconds: the last one comes a little later or earlier.
    unsigned long long later = 0;
    for (unsigned second = 1; second <= 20; ++second) {
      later += Drain(bound, site, START_NS + second * LogBound::SECOND_NS);
    }
    EXPECT_EQ(later, 20 * rate);
    EXPECT_EQ(Drain(bound, site, START_NS + 3600 * LogBound::SECOND_NS), 10 * rate);
  }
}

TEST(LogBoundTest, ExtremeRatesNeitherOverflowNorStall) {
  EXPECT_FALSE(LogBound(0).Limits());
  static LogSite site;
  const LogBound fastest(~0ULL);
  ASSERT_TRUE(fastest.Limits());
  for (int i = 0; i < 100000; ++i) {
    ASSERT_TRUE(fastest.Admit(site, START_NS));
  }
}

TEST(LogBoundTest, StatementIsReadyOnAMachineThatHasJustStarted) {
  static LogSite site;
  EXPECT_EQ(Drain(LogBound(100), site, 1), 1000u);
}

TEST(LogBoundTest, ReportsEveryHeldBackLineOnceAndNotTooOften) {
  static LogSite site;
  const LogBound bound(100);
  const unsigned long long before = Qen::LogLinesHeldBack();
  Drain(bound, site, START_NS);
  for (int i = 0; i < 41; ++i) {
    EXPECT_FALSE(bound.Admit(site, START_NS));
  }
  EXPECT_EQ(Qen::LogLinesHeldBack() - before, 42u);
  EXPECT_EQ(LogBound::TakeUnreported(site, START_NS), 42u);
  EXPECT_EQ(LogBound::TakeUnreported(site, START_NS + LogBound::SECOND_NS), 0u);

  EXPECT_FALSE(bound.Admit(site, START_NS));
  EXPECT_EQ(LogBound::TakeUnreported(site, START_NS + LogBound::REPORT_INTERVAL_NS - 1), 0u);
  EXPECT_EQ(LogBound::TakeUnreported(site, START_NS + LogBound::REPORT_INTERVAL_NS), 1u);
  EXPECT_EQ(Qen::LogLinesHeldBack() - before, 43u);
}

TEST(LogBoundTest, ThreadsTogetherGetExactlyTheBoundAndEveryHeldBackLineIsCountedAndReportedOnce) {
  constexpr unsigned THREADS = 8;
  constexpr unsigned LINES = 20000;
  constexpr unsigned SITES = 3;
  static LogSite sites[SITES];
  const LogBound bound(100);
  const unsigned long long before = Qen::LogLinesHeldBack();
  std::atomic<unsigned long long> admitted{0};
  std::atomic<unsigned long long> reported{0};
  std::atomic<unsigned long long> reportNowNs{START_NS};
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < THREADS; ++t) {
    threads.emplace_back([&] {
      for (unsigned i = 0; i < LINES; ++i) {
        LogSite& site = sites[i % SITES];
        admitted += bound.Admit(site, START_NS) ? 1 : 0;
        if (i % 64 == 0) {
          reported += LogBound::TakeUnreported(site, reportNowNs += LogBound::REPORT_INTERVAL_NS);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (LogSite& site : sites) {
    reported += LogBound::TakeUnreported(site, reportNowNs += LogBound::SECOND_NS);
  }
  EXPECT_EQ(admitted.load(), SITES * 1000u);
  EXPECT_EQ(Qen::LogLinesHeldBack() - before, THREADS * LINES - admitted.load());
  EXPECT_EQ(reported.load(), THREADS * LINES - admitted.load());
}

}  // namespace
