// What a statement hands to a sink, and when.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <limits>
#include <sstream>
#include <string>

#include "platform/log.h"
#include "platform/log_sink.h"
#include "support/log_capture.h"

namespace {

constexpr char LINE_UNIT[] = "unit.cpp";

template <class T>
void LogFromTemplate(T value) {
  KAVO_LOG_EVENT(LINE_UNIT, "from a template, ret[%d]", static_cast<int>(value));
}

TEST(LogLine, TheFrameNamesUnitLineThreadAndBareFunction) {
  const KavoTest::LogCapture capture(&Qen::SetLogSink, true);
  LogFromTemplate(-3L);
  [] { KAVO_LOG_WARN(LINE_UNIT, "from a lambda"); }();
  KAVO_LOG_INFO(LINE_UNIT, "size %llu, 100%%", std::numeric_limits<unsigned long long>::max());
  const int here = __LINE__ + 1;
  KAVO_LOG_DEBUG(LINE_UNIT, "%s : (odd) ]tid:", "text");

  std::ostringstream texts;
  for (const KavoTest::LogLine& line : capture.Lines()) {
    texts << line.channel << ' ' << line.level << ' ' << line.function << ": " << line.message << '\n';
  }
  EXPECT_EQ(texts.str(),
            "16777277 4 LogFromTemplate: from a template, ret[-3]\n"
            "16777277 2 operator(): from a lambda\n"
            "16777277 1 TestBody: size 18446744073709551615, 100%\n"
            "65597 0 TestBody: text : (odd) ]tid:\n");
  const std::string number = std::to_string(here);
  EXPECT_EQ(capture.Lines().back().raw, "[unit.cpp:" + number + "]tid:" + std::to_string(::gettid()) + ",TestBody(" +
                                            number + ") : text : (odd) ]tid:\r\n");
}

// Answers every level check with a number of the test's choice, and treats errno badly.
struct Answering {
  explicit Answering(int theAnswer, bool asked = true) : answer(theAnswer) {
    const KavoLogSink sink{asked ? &Enabled : nullptr, &Write, this};
    Qen::SetLogSink(&sink);
  }
  Answering(const Answering&) = delete;
  Answering& operator=(const Answering&) = delete;
  ~Answering() { Qen::SetLogSink(nullptr); }
  static int Enabled(void* context, unsigned, int) {
    errno = EIO;
    return static_cast<Answering*>(context)->answer;
  }
  static void Write(void* context, unsigned, int, const char*, va_list) {
    ++static_cast<Answering*>(context)->lines;
    errno = EIO;
  }
  int answer;
  int lines = 0;
};

TEST(LogLevel, OnlyTheAnswerOneLetsALineThroughAndOtherwiseNoArgumentIsComputed) {
  for (const int answer : {1, 0, 2, -1, 257}) {
    SCOPED_TRACE(answer);
    const Answering sink(answer);
    int computed = 0;
    errno = ENOENT;
    KAVO_LOG_DEBUG(LINE_UNIT, "%d", ++computed);
    KAVO_LOG_INFO(LINE_UNIT, "%d", ++computed);
    KAVO_LOG_WARN(LINE_UNIT, "%d", ++computed);
    EXPECT_EQ(computed, answer == 1 ? 3 : 0);
    KAVO_LOG_ERROR(LINE_UNIT, "unasked");
    KAVO_LOG_EVENT(LINE_UNIT, "unasked");
    EXPECT_EQ(sink.lines, computed + 2);
    EXPECT_EQ(errno, ENOENT);
  }
  const Answering unasked(0, false);
  KAVO_LOG_DEBUG(LINE_UNIT, "not without a check");
  KAVO_LOG_INFO(LINE_UNIT, "without a check too");
  EXPECT_EQ(unasked.lines, 1);
}

}  // namespace
