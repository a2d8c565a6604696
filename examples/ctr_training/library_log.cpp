#include "ctr_training/library_log.h"

#include <kavo.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "ctr_training/kavo_table.h"

namespace CtrTraining {
namespace {

constexpr const char* GENERATION_RETIRED = "is deleted, root is";

}  // namespace

LibraryLog::LibraryLog() {
  const KavoLogSink sink{&Enabled, &Write, this};
  if (KavoSetLogSink(&sink) != KAVO_SUCCESS) {
    throw KavoError("KavoSetLogSink refused the log sink");
  }
}

LibraryLog::~LibraryLog() {
  // From here on lines go where they went before. Putting the default back cannot fail.
  KavoSetLogSink(nullptr);
}

// Relaxed in both places: a counter that orders nothing.
std::uint64_t LibraryLog::Growths() const {
  return m_growths.load(std::memory_order_relaxed);
}

int LibraryLog::Enabled(void*, unsigned, int level) {
  return level == KAVO_LOG_LEVEL_DEBUG || level >= KAVO_LOG_LEVEL_WARN ? 1 : 0;
}

void LibraryLog::Write(void* self, unsigned, int level, const char* format, std::va_list arguments) {
  if (level == KAVO_LOG_LEVEL_DEBUG) {
    if (std::strstr(format, GENERATION_RETIRED) != nullptr) {
      static_cast<LibraryLog*>(self)->m_growths.fetch_add(1, std::memory_order_relaxed);
    }
    return;
  }
  // One write a line, so that lines of several threads do not mix.
  std::array<char, 1024> line;
  std::vsnprintf(line.data(), line.size(), format, arguments);
  std::fputs(line.data(), stderr);
}

}  // namespace CtrTraining
