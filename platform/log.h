// The log facility: statements, channels, levels, and the frame around every message. Hosts match on log lines, so
// message texts keep their spelling. Where log lines go is decided in log_sink.
#pragma once

#include <unistd.h>

#include "platform/log_site.h"

namespace Qen {

inline constexpr unsigned RUN_LOG_CHANNEL = 0x100003D;
inline constexpr unsigned DEBUG_LOG_CHANNEL = 0x1003D;

inline constexpr int LOG_LEVEL_DEBUG = 0;
inline constexpr int LOG_LEVEL_INFO = 1;
inline constexpr int LOG_LEVEL_WARN = 2;
inline constexpr int LOG_LEVEL_ERROR = 3;
inline constexpr int LOG_LEVEL_EVENT = 4;

// 1 when log lines of that level on that channel are to be written; any other answer suppresses them.
int LogLevelEnabled(unsigned channel, int level) noexcept;

// Each writes one log line. `site` is the statement's own object; it carries the statement's rate bound.
void LogError(LogSite& site, unsigned channel, const char* format, ...) noexcept __attribute__((format(printf, 3, 4)));
void LogWarn(LogSite& site, unsigned channel, const char* format, ...) noexcept __attribute__((format(printf, 3, 4)));
void LogInfo(LogSite& site, unsigned channel, const char* format, ...) noexcept __attribute__((format(printf, 3, 4)));
void LogDebug(LogSite& site, unsigned channel, const char* format, ...) noexcept __attribute__((format(printf, 3, 4)));
void LogEvent(LogSite& site, unsigned channel, const char* format, ...) noexcept __attribute__((format(printf, 3, 4)));

// The kernel's id of the calling thread, fetched anew for every line.
inline int LogThreadId() noexcept {
  return ::gettid();
}

// Lines that the default writer has held back so far, over all statements.
unsigned long long LogLinesHeldBack() noexcept;

}  // namespace Qen

// KAVO_LOG_x(unit, message, arguments...): `unit` is the file name that the log line shows; several files may share
// one. KAVO_LOG_x_AS(function, ...) shows the name of a step that hosts know, whatever function the statement is in.
#define KAVO_LOG_FRAME_ "[%s:%d]tid:%d,%s(%d) : "

#define KAVO_LOG_LINE_(writer, channel, function, unit, message, ...)                                         \
  do {                                                                                                        \
    static constinit ::Qen::LogSite kavoLogSite{unit, __func__, __LINE__};                                    \
    ::Qen::writer(kavoLogSite, channel, KAVO_LOG_FRAME_ message "\r\n", unit, __LINE__, ::Qen::LogThreadId(), \
                  function, __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                             \
  } while (false)

#define KAVO_LOG_CHECKED_LINE_(writer, channel, level, unit, message, ...)                 \
  do {                                                                                     \
    if (::Qen::LogLevelEnabled(channel, level) == 1) {                                     \
      KAVO_LOG_LINE_(writer, channel, __func__, unit, message __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                                      \
  } while (false)

#define KAVO_LOG_ERROR_AS(function, unit, message, ...) \
  KAVO_LOG_LINE_(LogError, ::Qen::RUN_LOG_CHANNEL, function, unit, message __VA_OPT__(, ) __VA_ARGS__)
#define KAVO_LOG_EVENT_AS(function, unit, message, ...) \
  KAVO_LOG_LINE_(LogEvent, ::Qen::RUN_LOG_CHANNEL, function, unit, message __VA_OPT__(, ) __VA_ARGS__)
#define KAVO_LOG_ERROR(unit, message, ...) KAVO_LOG_ERROR_AS(__func__, unit, message __VA_OPT__(, ) __VA_ARGS__)
#define KAVO_LOG_EVENT(unit, message, ...) KAVO_LOG_EVENT_AS(__func__, unit, message __VA_OPT__(, ) __VA_ARGS__)
#define KAVO_LOG_WARN(unit, message, ...)                                              \
  KAVO_LOG_CHECKED_LINE_(LogWarn, ::Qen::RUN_LOG_CHANNEL, ::Qen::LOG_LEVEL_WARN, unit, \
                         message __VA_OPT__(, ) __VA_ARGS__)
#define KAVO_LOG_INFO(unit, message, ...)                                              \
  KAVO_LOG_CHECKED_LINE_(LogInfo, ::Qen::RUN_LOG_CHANNEL, ::Qen::LOG_LEVEL_INFO, unit, \
                         message __VA_OPT__(, ) __VA_ARGS__)
#define KAVO_LOG_DEBUG(unit, message, ...)                                                 \
  KAVO_LOG_CHECKED_LINE_(LogDebug, ::Qen::DEBUG_LOG_CHANNEL, ::Qen::LOG_LEVEL_DEBUG, unit, \
                         message __VA_OPT__(, ) __VA_ARGS__)
