#include "platform/log_sink.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/log.h"
#include "platform/test_hooks.h"
#include "support/parking.h"

namespace {

using KavoTest::Parking;

constexpr char UNIT[] = "memory_pool.cpp";

// A sink that is retired once SetLogSink has replaced it. `retired` is a plain field on purpose: a line that gets into
// a retired sink is counted as a stray, and is a data race under ThreadSanitizer even where it comes too early to see
// it.
struct Sink {
  Sink() : record{&Enabled, &Write, this} {}
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  void Install() const { Qen::SetLogSink(&record); }

  static int Enabled(void* context, unsigned, int) {
    auto* const self = static_cast<Sink*>(context);
    self->strays += self->retired ? 1 : 0;
    return 1;
  }
  static void Write(void* context, unsigned, int, const char*, va_list) {
    auto* const self = static_cast<Sink*>(context);
    self->strays += self->retired ? 1 : 0;
    KAVO_TEST_POINT("test.inside_sink");
    ++self->lines;
  }

  KavoLogSink record;
  bool retired = false;
  std::atomic<unsigned long long> lines{0};
  std::atomic<int> strays{0};
};

class LogSinkTest : public ::testing::Test {
 protected:
  ~LogSinkTest() override { Qen::SetLogSink(nullptr); }
};

TEST_F(LogSinkTest, SetterWaitsForTheLineInsideThePreviousSinkAndForNoLaterOne) {
  Sink first;
  Sink second;
  first.Install();
  Parking insideFirst("test.inside_sink");
  Parking insideSecond("test.inside_sink", 2);
  std::thread earlyLogger([] { KAVO_LOG_ERROR(UNIT, "into the first"); });
  ASSERT_TRUE(insideFirst.WaitUntilParked());

  // Counts passages only: there is no millionth.
  Parking draining("log_sink.draining", 1000000);
  std::atomic<bool> returned{false};
  std::thread setter([&] {
    second.Install();
    returned = true;
    first.retired = true;
  });
  while (draining.Passages() < 150 && !returned) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(returned);

  std::thread lateLogger([] { KAVO_LOG_ERROR(UNIT, "into the second"); });
  insideSecond.WaitUntilParked();
  KAVO_LOG_ERROR(UNIT, "into the second");
  EXPECT_EQ(second.lines, 1u);
  EXPECT_FALSE(returned);

  insideFirst.Release();
  setter.join();
  insideSecond.Release();
  earlyLogger.join();
  lateLogger.join();
  EXPECT_EQ(first.lines, 1u);
  EXPECT_EQ(first.strays, 0);
  EXPECT_EQ(second.lines, 2u);
}

// The thread has seen which sink is current, but has not yet counted itself in, when the sink changes: once, or so
// often that its slot holds another sink by now.
TEST_F(LogSinkTest, LineThatMeetsAChangeGoesToTheNewestSinkOnly) {
  for (const std::size_t changes : {1u, 2u, 3u}) {
    SCOPED_TRACE(changes);
    std::deque<Sink> sinks(changes + 1);
    sinks[0].Install();
    Parking beforeCount("log_sink.before_count");
    std::thread logger([] { KAVO_LOG_ERROR(UNIT, "meets a change"); });
    ASSERT_TRUE(beforeCount.WaitUntilParked());
    for (std::size_t i = 1; i <= changes; ++i) {
      sinks[i].Install();
      sinks[i - 1].retired = true;
    }
    beforeCount.Release();
    logger.join();
    for (std::size_t i = 0; i <= changes; ++i) {
      EXPECT_EQ(sinks[i].lines, i == changes ? 1u : 0u) << "sink " << i;
      EXPECT_EQ(sinks[i].strays, 0) << "sink " << i;
    }
    Qen::SetLogSink(nullptr);
  }
}

TEST_F(LogSinkTest, LevelCheckThatMeetsTheReturnToTheDefaultIsAnsweredByTheDefault) {
  Sink sink;
  sink.Install();
  Parking beforeCount("log_sink.before_count");
  int answer = -1;
  std::thread checker([&] { answer = Qen::LogLevelEnabled(Qen::DEBUG_LOG_CHANNEL, Qen::LOG_LEVEL_DEBUG); });
  ASSERT_TRUE(beforeCount.WaitUntilParked());
  Qen::SetLogSink(nullptr);
  sink.retired = true;
  beforeCount.Release();
  checker.join();
  EXPECT_EQ(answer, 0);
  EXPECT_EQ(sink.strays, 0);
}

// Constant logging must neither slip into a replaced sink, nor lose a line, nor keep a setter from returning.
TEST_F(LogSinkTest, EveryLineReachesOneLiveSinkWhileSettersCompete) {
  constexpr unsigned LOGGERS = 3;
  constexpr unsigned SETTERS = 2;
  constexpr unsigned CHANGES = 300;
  std::deque<Sink> sinks(SETTERS * CHANGES + 1);
  // Which sink a setter replaces is known only under a lock of the test's own.
  std::mutex order;
  std::size_t current = 0;
  sinks[0].Install();

  std::atomic<bool> stop{false};
  std::atomic<unsigned long long> logged{0};
  std::vector<std::thread> loggers;
  for (unsigned i = 0; i < LOGGERS; ++i) {
    loggers.emplace_back([&] {
      while (!stop) {
        KAVO_LOG_ERROR(UNIT, "constant");
        KAVO_LOG_DEBUG(UNIT, "constant");
        logged += 2;
      }
    });
  }
  std::vector<std::thread> setters;
  for (unsigned i = 0; i < SETTERS; ++i) {
    setters.emplace_back([&] {
      for (unsigned change = 0; change < CHANGES; ++change) {
        const std::lock_guard<std::mutex> lock(order);
        sinks[current + 1].Install();
        sinks[current].retired = true;
        ++current;
      }
    });
  }
  for (std::thread& setter : setters) {
    setter.join();
  }
  stop = true;
  for (std::thread& logger : loggers) {
    logger.join();
  }
  unsigned long long written = 0;
  for (const Sink& sink : sinks) {
    written += sink.lines;
    EXPECT_EQ(sink.strays, 0);
  }
  EXPECT_EQ(written, logged);
}

// Debug lines only: the default shows none, whether the sink goes before the check or between check and line.
TEST_F(LogSinkTest, ReturnToTheDefaultUnderConstantLoggingLeavesTheSink) {
  constexpr unsigned ROUNDS = 500;
  std::deque<Sink> sinks(ROUNDS);
  std::atomic<bool> stop{false};
  std::vector<std::thread> loggers;
  for (unsigned i = 0; i < 3; ++i) {
    loggers.emplace_back([&] {
      while (!stop) {
        KAVO_LOG_DEBUG(UNIT, "constant");
      }
    });
  }
  ::testing::internal::CaptureStderr();
  // Setters without a lock of the test's own, too: these compete for the library's.
  std::thread competitor([&] {
    while (!stop) {
      Qen::SetLogSink(nullptr);
    }
  });
  for (Sink& sink : sinks) {
    sink.Install();
    Qen::SetLogSink(nullptr);
    sink.retired = true;
  }
  stop = true;
  competitor.join();
  for (std::thread& logger : loggers) {
    logger.join();
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  for (const Sink& sink : sinks) {
    EXPECT_EQ(sink.strays, 0);
  }
}

}  // namespace
