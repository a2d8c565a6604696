// The library's log lines, as a host takes them over. A lookup that misses is an error line to the library; here most
// misses are what the verification hopes for, and it reports the others itself, so these lines are dropped. All others
// go to standard error.
#pragma once

#include <cstdarg>

namespace ShardedLookup {

class LibraryLog {
 public:
  LibraryLog();
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;
  ~LibraryLog();

 private:
  static int Enabled(void* self, unsigned channel, int level);
  static void Write(void* self, unsigned channel, int level, const char* format, std::va_list arguments);
};

}  // namespace ShardedLookup
