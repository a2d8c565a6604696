// The library's log lines, as a host takes them over: problems go to standard error, and the debug line that the
// library writes when a table has left an old generation behind is counted, which gives the number of growths.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

namespace CtrTraining {

class LibraryLog {
 public:
  LibraryLog();
  LibraryLog(const LibraryLog&) = delete;
  LibraryLog& operator=(const LibraryLog&) = delete;
  ~LibraryLog();

  // Since construction, over all tables.
  std::uint64_t Growths() const;

 private:
  static int Enabled(void* self, unsigned channel, int level);
  static void Write(void* self, unsigned channel, int level, const char* format, std::va_list arguments);

  std::atomic<std::uint64_t> m_growths{0};
};

}  // namespace CtrTraining
