#include "incremental_export/library_log.h"

#include <kavo.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "incremental_export/kavo_table.h"

namespace IncrementalExport {
namespace {

constexpr const char* INSERT_REFUSED = ": Insert failed, ret[";

}  // namespace

LibraryLog::LibraryLog() {
  const KavoLogSink sink{&Enabled, &Write, nullptr};
  if (KavoSetLogSink(&sink) != KAVO_SUCCESS) {
    throw KavoError("KavoSetLogSink refused the log sink");
  }
}

LibraryLog::~LibraryLog() {
  // From here on lines go where they went before. Putting the default back cannot fail.
  KavoSetLogSink(nullptr);
}

int LibraryLog::Enabled(void*, unsigned, int level) {
  return level >= KAVO_LOG_LEVEL_WARN ? 1 : 0;
}

void LibraryLog::Write(void*, unsigned, int, const char* format, std::va_list arguments) {
  if (std::strstr(format, INSERT_REFUSED) != nullptr) {
    return;
  }
  // One write a line, so that lines of several threads do not mix.
  std::array<char, 1024> line;
  std::vsnprintf(line.data(), line.size(), format, arguments);
  std::fputs(line.data(), stderr);
}

}  // namespace IncrementalExport
