#include "platform/log.h"

#include <cerrno>
#include <cstdarg>

#include "platform/log_sink.h"

namespace Qen {
namespace {

// A statement on a failure path must not change what the caller finds in errno.
class ErrnoKeeper {
 public:
  ErrnoKeeper() noexcept : m_errno(errno) {}
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { errno = m_errno; }

 private:
  int m_errno;
};

}  // namespace

// The five writers differ in the level only.
#define KAVO_DEFINE_LOG_WRITER_(name, level)                                     \
  void name(LogSite& site, unsigned channel, const char* format, ...) noexcept { \
    const ErrnoKeeper keeper;                                                    \
    va_list arguments;                                                           \
    va_start(arguments, format);                                                 \
    RouteLogLine(site, channel, level, format, arguments);                       \
    va_end(arguments);                                                           \
  }

KAVO_DEFINE_LOG_WRITER_(LogError, LOG_LEVEL_ERROR)
KAVO_DEFINE_LOG_WRITER_(LogWarn, LOG_LEVEL_WARN)
KAVO_DEFINE_LOG_WRITER_(LogInfo, LOG_LEVEL_INFO)
KAVO_DEFINE_LOG_WRITER_(LogDebug, LOG_LEVEL_DEBUG)
KAVO_DEFINE_LOG_WRITER_(LogEvent, LOG_LEVEL_EVENT)

}  // namespace Qen
