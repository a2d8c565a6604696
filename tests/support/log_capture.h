// Records the library's log lines while it lives. Works with the testing build (give it Qen::SetLogSink) and with the
// shared library (give it KavoSetLogSink); needs the public header only.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kavo.h"

namespace KavoTest {

inline constexpr unsigned RUN_CHANNEL = 0x100003D;
inline constexpr unsigned DEBUG_CHANNEL = 0x1003D;

// One line, taken apart. `framed` says whether it had the library's frame and line end; otherwise only `raw` is set.
struct LogLine {
  unsigned channel = 0;
  int level = -1;
  bool framed = false;
  std::string file;
  int line = 0;
  int threadId = 0;
  std::string function;
  int lineAgain = 0;
  std::string message;
  std::string raw;
};

// Takes apart "[file:line]tid:thread,function(line) : message\r\n". The function may be "operator()".
inline LogLine ParseLogLine(std::string raw) {
  LogLine parsed;
  char file[64] = "";
  int functionAt = 0;
  std::sscanf(raw.c_str(), "[%63[^:]:%d]tid:%d,%n", file, &parsed.line, &parsed.threadId, &functionAt);
  const auto from = static_cast<std::size_t>(functionAt);
  const std::size_t frameEnd = raw.find(") : ", from);
  const std::size_t paren = frameEnd == std::string::npos ? frameEnd : raw.rfind('(', frameEnd);
  if (from != 0 && paren != std::string::npos && paren >= from && raw.ends_with("\r\n")) {
    parsed.file = file;
    parsed.function = raw.substr(from, paren - from);
    parsed.message = raw.substr(frameEnd + 4, raw.size() - frameEnd - 6);
    parsed.framed = std::sscanf(raw.c_str() + paren, "(%d)", &parsed.lineAgain) == 1;
  }
  parsed.raw = std::move(raw);
  return parsed;
}

class LogCapture {
 public:
  // `setter` is Qen::SetLogSink or KavoSetLogSink. Records every level, debug lines only when asked to.
  template <class Result>
  explicit LogCapture(Result (*setter)(const KavoLogSink*), bool debug = false)
      : m_setSink([setter](const KavoLogSink* sink) { static_cast<void>(setter(sink)); }), m_debug(debug) {
    const KavoLogSink sink{&LogCapture::Enabled, &LogCapture::Write, this};
    m_setSink(&sink);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { m_setSink(nullptr); }

  std::vector<LogLine> Lines() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }

  // The messages alone, without frame and line end, in the order of arrival.
  std::vector<std::string> Messages() const {
    std::vector<std::string> messages;
    for (const LogLine& line : Lines()) {
      messages.push_back(line.framed ? line.message : line.raw);
    }
    return messages;
  }

  std::size_t Count(const std::string& message) const {
    return static_cast<std::size_t>(std::ranges::count(Messages(), message));
  }

  void Clear() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
  }

 private:
  static int Enabled(void* context, unsigned channel, int level) {
    const bool isDebug = channel == DEBUG_CHANNEL || level == KAVO_LOG_LEVEL_DEBUG;
    return !isDebug || static_cast<LogCapture*>(context)->m_debug ? 1 : 0;
  }

  static void Write(void* context, unsigned channel, int level, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(static_cast<std::size_t>(std::max(length, 0)) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    LogLine line = ParseLogLine(std::move(text));
    line.channel = channel;
    line.level = level;
    auto* const capture = static_cast<LogCapture*>(context);
    const std::lock_guard<std::mutex> lock(capture->m_mutex);
    capture->m_lines.push_back(std::move(line));
  }

  std::function<void(const KavoLogSink*)> m_setSink;
  bool m_debug;
  mutable std::mutex m_mutex;
  std::vector<LogLine> m_lines;
};

}  // namespace KavoTest
