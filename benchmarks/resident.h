// Memory that a table keeps resident, and the time of making and destroying it. Each is measured in a process of its
// own, whose memory nothing else has touched.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Bench {

enum class Fill {
  GROWN,                 // from a table for 1,000 entries
  SIZED,                 // into a table made for all
  SIZED_FIND_OR_INSERT,  // the same, by find-or-insert, for tables that take memory in another way then
};

struct Resident {
  double createMilliseconds = 0;
  double createdMebibytes = 0;  // resident after creation
  double bytesAnEntry = 0;      // resident after filling
  double peakBytesAnEntry = 0;  // the most that was resident meanwhile
  double fillSeconds = 0;
  double destroyMilliseconds = 0;
};

const char* FillName(Fill fill);

// Runs this program again, so that it measures and prints: returns what it printed.
Resident MeasureInChild(std::string_view subject, Fill fill, std::uint64_t entries, unsigned threads);

// In the child.
void PrintResident(const Resident& resident);
double ResidentBytes();
double PeakResidentBytes();

}  // namespace Bench
