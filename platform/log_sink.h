// Where lines go: the default writer to standard error, or the host's own logger.
#pragma once

#include <cstdarg>

#include "kavo.h"
#include "platform/log_site.h"

namespace Qen {

// Installs a copy of *sink, or the default writer for null. When it returns no thread is inside the previous sink any
// more, so the host may free what its context points to. Must not be called from inside a sink.
void SetLogSink(const KavoLogSink* sink) noexcept;

// Hands one line to whichever of the two is in place. The arguments are used up.
void RouteLogLine(LogSite& site, unsigned channel, int level, const char* format, va_list arguments) noexcept
    __attribute__((format(printf, 4, 0)));

}  // namespace Qen
