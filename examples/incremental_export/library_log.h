// The library's log lines, as a host takes them over: problems go to standard error. One line is left out. A restore
// offers keys that may be there already and looks at the answer; the line about such a refused insert tells nothing
// new.
#pragma once

#include <cstdarg>

namespace IncrementalExport {

class LibraryLog {
 public:
  LibraryLog();
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;
  ~LibraryLog();

 private:
  static int Enabled(void* context, unsigned channel, int level);
  static void Write(void* context, unsigned channel, int level, const char* format, std::va_list arguments);
};

}  // namespace IncrementalExport
