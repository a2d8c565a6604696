#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "platform/log.h"
#include "platform/log_sink.h"
#include "support/log_capture.h"

namespace {

using KavoTest::LogCapture;
using KavoTest::LogLine;

constexpr char UNIT[] = "memory_pool.cpp";

struct Logger {
  static void Member() { KAVO_LOG_ERROR(UNIT, "from a member"); }
  template <class T>
  static void Template(T value) {
    KAVO_LOG_EVENT(UNIT, "from a template, ret[%d]", static_cast<int>(value));
  }
  static void Lambda() {
    [] { KAVO_LOG_WARN(UNIT, "from a lambda"); }();
  }
};

void CheckLine(const LogLine& line, unsigned channel, int level, const std::string& function,
               const std::string& message) {
  SCOPED_TRACE(line.raw);
  EXPECT_TRUE(line.framed);
  EXPECT_EQ(line.channel, channel);
  EXPECT_EQ(line.level, level);
  EXPECT_EQ(line.file, UNIT);
  EXPECT_GT(line.line, 0);
  EXPECT_EQ(line.lineAgain, line.line);
  EXPECT_EQ(line.threadId, ::gettid());
  EXPECT_EQ(line.function, function);
  EXPECT_EQ(line.message, message);
}

TEST(LogLineTest, FrameNamesUnitLineThreadAndBareFunction) {
  const LogCapture capture(&Qen::SetLogSink, true);
  Logger::Member();
  Logger::Template(-3L);
  Logger::Lambda();
  KAVO_LOG_INFO(UNIT, "size %llu, 100%%", std::numeric_limits<unsigned long long>::max());
  const int here = __LINE__ + 1;
  KAVO_LOG_DEBUG(UNIT, "%s : (odd) ]tid:", "text");

  const std::vector<LogLine> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 5u);
  CheckLine(lines[0], 0x100003D, 3, "Member", "from a member");
  CheckLine(lines[1], 0x100003D, 4, "Template", "from a template, ret[-3]");
  CheckLine(lines[2], 0x100003D, 2, "operator()", "from a lambda");
  CheckLine(lines[3], 0x100003D, 1, "TestBody", "size 18446744073709551615, 100%");
  CheckLine(lines[4], 0x1003D, 0, "TestBody", "text : (odd) ]tid:");
  EXPECT_EQ(lines[4].line, here);
  EXPECT_EQ(lines[4].raw, "[memory_pool.cpp:" + std::to_string(here) + "]tid:" + std::to_string(::gettid()) +
                              ",TestBody(" + std::to_string(here) + ") : text : (odd) ]tid:\r\n");
}

TEST(LogLineTest, ThreadIdIsTheCallersOwn) {
  const LogCapture capture(&Qen::SetLogSink);
  Logger::Member();
  int other = 0;
  std::thread([&other] {
    other = ::gettid();
    Logger::Member();
  }).join();
  const std::vector<LogLine> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].threadId, ::gettid());
  EXPECT_EQ(lines[1].threadId, other);
}

// A sink that answers every level check with a number of the test's choice, and treats errno badly.
struct Answering {
  int answer = 1;
  int checks = 0;
  int lines = 0;

  static int Enabled(void* context, unsigned, int) {
    auto* const self = static_cast<Answering*>(context);
    ++self->checks;
    errno = EIO;
    return self->answer;
  }
  static void Write(void* context, unsigned, int, const char*, va_list) {
    ++static_cast<Answering*>(context)->lines;
    errno = EIO;
  }
  KavoLogSink Sink(bool withCheck = true) { return {withCheck ? &Enabled : nullptr, &Write, this}; }
};

class LogLevelTest : public ::testing::Test {
 protected:
  ~LogLevelTest() override { Qen::SetLogSink(nullptr); }
};

TEST_F(LogLevelTest, OnlyTheAnswerOneLetsALineThroughAndOtherwiseNoArgumentIsComputed) {
  for (const int answer : {1, 0, 2, -1, 256, 257}) {
    SCOPED_TRACE(answer);
    Answering sink{answer};
    const KavoLogSink installed = sink.Sink();
    Qen::SetLogSink(&installed);
    int computed = 0;
    KAVO_LOG_DEBUG(UNIT, "%d", ++computed);
    KAVO_LOG_INFO(UNIT, "%d", ++computed);
    KAVO_LOG_WARN(UNIT, "%d", ++computed);
    EXPECT_EQ(Qen::LogLevelEnabled(Qen::RUN_LOG_CHANNEL, Qen::LOG_LEVEL_WARN), answer);
    const int expected = answer == 1 ? 3 : 0;
    EXPECT_EQ(computed, expected);
    EXPECT_EQ(sink.lines, expected);
    EXPECT_EQ(sink.checks, 4);
  }
}

TEST_F(LogLevelTest, ErrorAndEventLinesAreWrittenUnasked) {
  Answering sink{0};
  const KavoLogSink installed = sink.Sink();
  Qen::SetLogSink(&installed);
  KAVO_LOG_ERROR(UNIT, "error");
  KAVO_LOG_EVENT(UNIT, "event");
  EXPECT_EQ(sink.lines, 2);
  EXPECT_EQ(sink.checks, 0);
}

TEST_F(LogLevelTest, SinkWithoutACheckTakesInfoAndWarningButNoDebugLines) {
  Answering sink;
  const KavoLogSink installed = sink.Sink(false);
  Qen::SetLogSink(&installed);
  EXPECT_EQ(Qen::LogLevelEnabled(Qen::DEBUG_LOG_CHANNEL, Qen::LOG_LEVEL_DEBUG), 0);
  EXPECT_EQ(Qen::LogLevelEnabled(Qen::RUN_LOG_CHANNEL, Qen::LOG_LEVEL_INFO), 1);
  EXPECT_EQ(Qen::LogLevelEnabled(Qen::RUN_LOG_CHANNEL, Qen::LOG_LEVEL_WARN), 1);
}

TEST_F(LogLevelTest, SinkGetsEveryLineOfAFlood) {
  Answering sink;
  const KavoLogSink installed = sink.Sink();
  Qen::SetLogSink(&installed);
  const unsigned long long heldBack = Qen::LogLinesHeldBack();
  for (int i = 0; i < 50000; ++i) {
    KAVO_LOG_ERROR(UNIT, "flood");
  }
  EXPECT_EQ(sink.lines, 50000);
  EXPECT_EQ(Qen::LogLinesHeldBack(), heldBack);
}

TEST_F(LogLevelTest, StatementLeavesErrnoAlone) {
  Answering sink;
  const KavoLogSink installed = sink.Sink();
  Qen::SetLogSink(&installed);
  errno = ENOENT;
  KAVO_LOG_DEBUG(UNIT, "debug");
  KAVO_LOG_ERROR(UNIT, "error");
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(sink.lines, 2);
}

}  // namespace
