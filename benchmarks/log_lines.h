#pragma once

#include <kavo.h>

#include "check.h"

namespace Bench {

// A missed key is a failure, which the library reports with two log lines: they go to a sink that drops them, as a host
// would do that expects misses.
inline void DropLogLines() {
  const KavoLogSink sink{[](void*, unsigned, int) { return 0; }, [](void*, unsigned, int, const char*, va_list) {},
                         nullptr};
  Check(KavoSetLogSink(&sink) == KAVO_SUCCESS, "KavoSetLogSink");
}

}  // namespace Bench
