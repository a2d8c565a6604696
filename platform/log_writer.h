// The default writer: lines to standard error, each in one write, bounded for each statement, levels and bound from the
// environment.
#pragma once

#include <cstdarg>

#include "platform/log_site.h"

namespace Qen {

// Reads KAVO_LOG_LEVEL and KAVO_LOG_RATE. Called once, while the library is loaded and before anything else of it runs;
// what it sets is only read after that.
void ReadLogEnvironment() noexcept;

// The least severe level that the default writer shows; above LOG_LEVEL_EVENT when it shows nothing.
int DefaultLogLevel() noexcept;

// Reports what is still held back: the default writer may write no log line for a long time, or never again.
void ReportAllHeldBack() noexcept;

// Before this log line each statement that held some back reports how many. The arguments are used up.
void WriteToStandardError(LogSite& site, int level, const char* format, va_list arguments) noexcept
    __attribute__((format(printf, 3, 0)));

}  // namespace Qen
