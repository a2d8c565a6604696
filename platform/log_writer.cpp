#include "platform/log_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <system_error>

#include "platform/allocation.h"
#include "platform/log.h"
#include "platform/log_bound.h"

namespace Qen {
namespace {

constexpr int DEFAULT_LEVEL = LOG_LEVEL_WARN;
constexpr int LOG_LEVEL_OFF = LOG_LEVEL_EVENT + 1;
// Holds every line of the library but one with an exceptionally long exception text.
constexpr std::size_t STACK_LINE_BYTES = 1024;

// Written at load only, see ReadLogEnvironment. Constant-initialised and never destroyed, so that logging is safe at
// any time between load and unload.
constinit int g_level = DEFAULT_LEVEL;
constinit LogBound g_bound{LogBound::DEFAULT_RATE};

int LevelNamed(const char* name) noexcept {
  struct Level {
    std::string_view name;
    int level;
  };
  static constexpr Level LEVELS[] = {{"debug", LOG_LEVEL_DEBUG},
                                     {"info", LOG_LEVEL_INFO},
                                     {"warn", LOG_LEVEL_WARN},
                                     {"error", LOG_LEVEL_ERROR},
                                     {"off", LOG_LEVEL_OFF}};
  if (name != nullptr) {
    for (const Level& candidate : LEVELS) {
      if (candidate.name == name) {
        return candidate.level;
      }
    }
  }
  return DEFAULT_LEVEL;
}

unsigned long long RateNamed(const char* text) noexcept {
  if (text == nullptr) {
    return LogBound::DEFAULT_RATE;
  }
  unsigned long long rate = 0;
  const char* const end = text + std::strlen(text);
  const std::from_chars_result result = std::from_chars(text, end, rate);
  if (result.ec == std::errc::invalid_argument || result.ptr != end) {
    return LogBound::DEFAULT_RATE;
  }
  // More digits than a number holds are still a number: the highest.
  return result.ec == std::errc::result_out_of_range ? ~0ULL : rate;
}

unsigned long long CoarseNowNs() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<unsigned long long>(now.tv_sec) * LogBound::SECOND_NS +
         static_cast<unsigned long long>(now.tv_nsec);
}

// One write for a line, unless the system takes less than all of it. What it refuses is dropped: a log line must
// neither block on a non-blocking descriptor nor end the host because standard error is a broken pipe or a file at its
// size limit, so the signals for these are kept from the host.
void WriteText(const char* text, std::size_t length) noexcept {
  sigset_t fatal;
  sigset_t before;
  sigemptyset(&fatal);
  sigaddset(&fatal, SIGPIPE);
  sigaddset(&fatal, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &fatal, &before);
  while (length > 0) {
    const ssize_t written = ::write(STDERR_FILENO, text, length);
    if (written > 0) {
      text += written;
      length -= static_cast<std::size_t>(written);
    } else if (written == 0 || errno != EINTR) {
      // Whichever of the two this write raised is pending now. One that the host blocks itself stays the host's.
      for (const int signal : {SIGPIPE, SIGXFSZ}) {
        if (sigismember(&before, signal) == 1) {
          sigdelset(&fatal, signal);
        }
      }
      const timespec atOnce{};
      sigtimedwait(&fatal, nullptr, &atOnce);
      break;
    }
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// In the frame of the statement whose log lines were held back.
void WriteHeldBack(const LogSite& site, unsigned long long count) noexcept {
  char text[STACK_LINE_BYTES];
  const int length = std::snprintf(text, sizeof(text), KAVO_LOG_FRAME_ "%llu lines held back\r\n", site.unit, site.line,
                                   LogThreadId(), site.function, site.line, count);
  if (length > 0) {
    WriteText(text, std::min(static_cast<std::size_t>(length), sizeof(text) - 1));
  }
}

void WriteLine(const char* format, va_list arguments) noexcept __attribute__((format(printf, 1, 0)));

void WriteLine(const char* format, va_list arguments) noexcept {
  va_list again;
  va_copy(again, arguments);
  char text[STACK_LINE_BYTES];
  const int length = std::vsnprintf(text, sizeof(text), format, arguments);
  if (length < 0) {
    static constexpr char UNPRINTABLE[] = "a log line could not be formatted\r\n";
    WriteText(UNPRINTABLE, sizeof(UNPRINTABLE) - 1);
  } else if (static_cast<std::size_t>(length) < sizeof(text)) {
    WriteText(text, static_cast<std::size_t>(length));
  } else {
    const std::size_t bytes = static_cast<std::size_t>(length) + 1;
    if (void* const memory = TryHeapAllocate(bytes)) {
      char* const longText = static_cast<char*>(memory);
      // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): as above
      std::vsnprintf(longText, bytes, format, again);
      WriteText(longText, bytes - 1);
      HeapFree(memory, bytes);
    } else {
      static constexpr char CUT[] = "... (line cut, no memory)\r\n";
      std::memcpy(text + sizeof(text) - sizeof(CUT), CUT, sizeof(CUT));
      WriteText(text, sizeof(text) - 1);
    }
  }
  va_end(again);
}

}  // namespace

void ReadLogEnvironment() noexcept {
  g_level = LevelNamed(std::getenv("KAVO_LOG_LEVEL"));
  g_bound = LogBound(RateNamed(std::getenv("KAVO_LOG_RATE")));
}

int DefaultLogLevel() noexcept {
  return g_level;
}

void ReportAllHeldBack() noexcept {
  LogBound::ReportHeldBack(LogBound::FINAL_REPORT, WriteHeldBack);
}

void WriteToStandardError(LogSite& site, int level, const char* format, va_list arguments) noexcept {
  // Error and event lines come unchecked, and any other may have been checked against a sink that is gone by now.
  if (level < g_level) {
    return;
  }
  if (g_bound.Limits()) {
    const unsigned long long nowNs = CoarseNowNs();
    if (!g_bound.Admit(site, nowNs)) {
      return;
    }
    LogBound::ReportHeldBack(nowNs, WriteHeldBack);
  }
  WriteLine(format, arguments);
}

}  // namespace Qen
