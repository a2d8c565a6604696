// Records the library's log lines while it lives. Works with the testing build (give it Qen::SetLogSink) and with the
// shared library (give it KavoSetLogSink); needs the public header only.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
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
  parsed.raw = std::move(raw);
  const std::string& text = parsed.raw;
  const auto number = [](const std::string& digits, int& value) {
    char* end = nullptr;
    value = static_cast<int>(std::strtol(digits.c_str(), &end, 10));
    return !digits.empty() && *end == '\0';
  };
  constexpr std::size_t NONE = std::string::npos;
  const std::size_t bracket = text.find("]tid:");
  const std::size_t colon = bracket == NONE ? NONE : text.rfind(':', bracket);
  const std::size_t comma = bracket == NONE ? NONE : text.find(',', bracket);
  const std::size_t frameEnd = comma == NONE ? NONE : text.find(") : ", comma);
  const std::size_t paren = frameEnd == NONE ? NONE : text.rfind('(', frameEnd);
  const bool ended = text.size() >= 2 && text.compare(text.size() - 2, 2, "\r\n") == 0;
  if (text.empty() || text[0] != '[' || colon == NONE || paren == NONE || paren < comma || !ended) {
    return parsed;
  }
  parsed.file = text.substr(1, colon - 1);
  parsed.function = text.substr(comma + 1, paren - comma - 1);
  const std::size_t messageAt = frameEnd + 4;
  parsed.message = text.substr(messageAt, text.size() - 2 - messageAt);
  parsed.framed = number(text.substr(colon + 1, bracket - colon - 1), parsed.line) &&
                  number(text.substr(bracket + 5, comma - bracket - 5), parsed.threadId) &&
                  number(text.substr(paren + 1, frameEnd - paren - 1), parsed.lineAgain);
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
    const std::vector<std::string> messages = Messages();
    return static_cast<std::size_t>(std::count(messages.begin(), messages.end(), message));
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
