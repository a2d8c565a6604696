#include "sharded_lookup/library_log.h"

#include <kavo.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "sharded_lookup/cluster.h"

namespace ShardedLookup {
namespace {

constexpr const char* LOOKUP_MISSED = "LookUpWithValLen failed";

}  // namespace

LibraryLog::LibraryLog() {
  const KavoLogSink sink{&Enabled, &Write, this};
  const int status = KavoSetLogSink(&sink);
  if (status != KAVO_SUCCESS) {
    throw KavoError("KavoSetLogSink", status);
  }
}

LibraryLog::~LibraryLog() {
  // Putting the default back cannot fail.
  KavoSetLogSink(nullptr);
}

int LibraryLog::Enabled(void*, unsigned, int level) {
  return level >= KAVO_LOG_LEVEL_WARN ? 1 : 0;
}

void LibraryLog::Write(void*, unsigned, int, const char* format, std::va_list arguments) {
  if (std::strstr(format, LOOKUP_MISSED) != nullptr) {
    return;
  }
  // One write a line, so that lines of several threads do not mix.
  std::array<char, 1024> line;
  std::vsnprintf(line.data(), line.size(), format, arguments);
  std::fputs(line.data(), stderr);
}

}  // namespace ShardedLookup
