// The sink changes while others log. Where the order of two threads matters, one is parked at the point where it would
// do harm; that what they do is ordered in memory, ThreadSanitizer sees.
#include "platform/log_sink.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <deque>
#include <thread>
#include <vector>

#include "platform/log.h"
#include "platform/test_hooks.h"
#include "support/parking.h"

namespace {

using KavoTest::Parking;

void LogOneLine() {
  KAVO_LOG_ERROR("unit.cpp", "one");
}

// A sink that is retired once SetLogSink has replaced it. `retired` is a plain field on purpose: a line that gets into
// a retired sink is counted as a stray, and is a data race even where it comes too early to see it.
struct Sink {
  void Install() {
    const KavoLogSink record{&Enabled, &Write, this};
    Qen::SetLogSink(&record);
  }
  static int Enabled(void* context, unsigned, int) {
    auto* const self = static_cast<Sink*>(context);
    self->strays += self->retired ? 1 : 0;
    return 1;
  }
  static void Write(void* context, unsigned, int, const char*, va_list) {
    Enabled(context, 0, 0);
    KAVO_TEST_POINT("test.inside_sink");
    ++static_cast<Sink*>(context)->lines;
  }

  bool retired = false;
  std::atomic<unsigned long long> lines{0};
  std::atomic<int> strays{0};
};

TEST(LogSinkChange, TheSetterWaitsForTheLineInsideThePreviousSinkAndForNoLaterOne) {
  Sink first;
  Sink second;
  first.Install();
  Parking insideFirst("test.inside_sink");
  Parking insideSecond("test.inside_sink", 2);
  std::thread earlyLogger(&LogOneLine);
  ASSERT_TRUE(insideFirst.WaitUntilParked());
  Parking draining("log_sink.draining", Parking::NEVER);
  std::atomic<bool> returned{false};
  std::thread setter([&] {
    second.Install();
    returned = true;
    first.retired = true;
  });
  EXPECT_TRUE(Parking::Await([&] { return draining.Passages() >= 150 || returned; }));
  std::thread lateLogger(&LogOneLine);
  insideSecond.WaitUntilParked();
  LogOneLine();
  EXPECT_EQ(second.lines, 1U);
  EXPECT_FALSE(returned);
  insideFirst.Release();
  setter.join();
  insideSecond.Release();
  earlyLogger.join();
  lateLogger.join();
  EXPECT_EQ(first.lines, 1U);
  EXPECT_EQ(first.strays, 0);
  EXPECT_EQ(second.lines, 2U);
  Qen::SetLogSink(nullptr);
}

// The thread has seen which sink is current, but has not yet counted itself in, when the sink changes: once, or so
// often that its slot holds another sink by now.
TEST(LogSinkChange, ALineThatMeetsAChangeGoesToTheNewestSinkOnly) {
  for (const std::size_t changes : {1U, 2U}) {
    std::deque<Sink> sinks(changes + 1);
    sinks[0].Install();
    Parking beforeCount("log_sink.before_count");
    std::thread logger(&LogOneLine);
    ASSERT_TRUE(beforeCount.WaitUntilParked());
    for (std::size_t i = 1; i <= changes; ++i) {
      sinks[i].Install();
      sinks[i - 1].retired = true;
    }
    beforeCount.Release();
    logger.join();
    EXPECT_EQ(sinks[changes].lines, 1U);
    EXPECT_EQ(sinks[0].strays + sinks[changes - 1].strays, 0);
    Qen::SetLogSink(nullptr);
  }
}

}  // namespace
