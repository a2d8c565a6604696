// Records the library's log lines while it lives. Needs the public header only.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kavo.hpp"

namespace KavoTest {

inline constexpr unsigned RUN_CHANNEL = 0x100003D;
inline constexpr unsigned DEBUG_CHANNEL = 0x1003D;

// One line, taken apart. `framed` says whether it had the library's frame and line end; otherwise all of it is the
// message.
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
};

// Takes apart "[file:line]tid:thread,function(line) : message\r\n". The function may be "operator()".
inline LogLine ParseLogLine(const std::string& raw) {
  LogLine parsed;
  parsed.message = raw;
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
  return parsed;
}

class LogCapture {
 public:
  // Records every level, debug lines only when asked to.
  explicit LogCapture(bool debug = false)
      : m_sink([this](const kavo::LogLine& line) { Add(line); }, debug ? kavo::LogLevel::DEBUG : kavo::LogLevel::INFO) {
  }

  std::vector<LogLine> Lines() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }

  // The messages alone, without frame and line end, in the order of arrival.
  std::vector<std::string> Messages() const {
    std::vector<std::string> messages;
    std::ranges::transform(Lines(), std::back_inserter(messages), &LogLine::message);
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
  void Add(const kavo::LogLine& line) {
    LogLine parsed = ParseLogLine(std::string(line.Text()));
    parsed.channel = line.Channel();
    parsed.level = static_cast<int>(line.Level());
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(std::move(parsed));
  }

  mutable std::mutex m_mutex;
  std::vector<LogLine> m_lines;
  const kavo::LogSink<std::function<void(const kavo::LogLine&)>> m_sink;  // last: it uses the rest
};

}  // namespace KavoTest
