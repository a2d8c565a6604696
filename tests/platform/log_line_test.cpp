// What a statement hands to a sink, and when.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>

#include "platform/log.h"
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

}  // namespace
