#include "platform/log_bound.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using Qen::LogBound;

// The bound is given its time, so the test has a clock of its own.
TEST(LogBound, ThreadsTogetherGetTenSecondsAtOnceThenTheRateAndEveryHeldBackLineIsReportedOnce) {
  constexpr unsigned THREADS = 4;
  constexpr unsigned LINES = 20000;
  static Qen::LogSite sites[4];  // one that has held a line back stays in a list
  Qen::LogSite* site = sites;
  // 7 lines a second do not divide a second into whole nanoseconds. The machine may have just started.
  for (const auto& [rate, startNs] : {std::pair{1ULL, 1ULL}, {7, 1}, {5000, 1}, {100, 1000 * LogBound::SECOND_NS}}) {
    SCOPED_TRACE(rate);
    const LogBound bound(rate);
    std::atomic<unsigned long long> reported{0};
    std::atomic<unsigned long long> reportNowNs{startNs};
    // Idle for an hour, it has saved up no more than at first.
    for (const unsigned long long afterSeconds : {0U, 1U, 2U, 3600U}) {
      std::atomic<unsigned long long> admitted{0};
      std::vector<std::thread> threads;
      for (unsigned t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, nowNs = startNs + afterSeconds * LogBound::SECOND_NS] {
          for (unsigned i = 0; i < LINES; ++i) {
            admitted += bound.Admit(*site, nowNs) ? 1 : 0;
            reported += i % 64 == 0 ? LogBound::TakeUnreported(*site, reportNowNs += LogBound::SECOND_NS) : 0;
          }
        });
      }
      for (std::thread& thread : threads) {
        thread.join();
      }
      reported += LogBound::TakeUnreported(*site, reportNowNs += LogBound::SECOND_NS);
      EXPECT_EQ(admitted.load(), afterSeconds % 3600 == 0 ? 10 * rate : rate) << afterSeconds;
    }
    EXPECT_EQ(reported.load(), 4 * THREADS * LINES - 22 * rate);
    ++site;
  }
  EXPECT_FALSE(LogBound(0).Limits());
}

}  // namespace
