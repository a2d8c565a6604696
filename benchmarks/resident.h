// Memory that a table keeps resident, and the time of making and destroying it. Each is measured in a process of its
// own, whose memory nothing else has touched.
#pragma once

#include <array>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "check.h"
#include "figures.h"
#include "keys.h"
#include "parallel.h"
#include "value.h"

namespace Bench {

enum Fill : unsigned {
  GROWN,                 // from a table for 1,000 entries
  SIZED,                 // into a table made for all
  SIZED_FIND_OR_INSERT,  // the same, by find-or-insert, for tables that take memory in another way then
};
inline constexpr std::array FILL_NAMES = {"grown", "pre-sized", "pre-sized, find-or-insert"};

// VmRSS is what is resident now, VmHWM the most that ever was.
inline double ResidentBytes(std::string_view field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field)) {
      return std::stod(line.substr(field.size() + 1)) * 1024;
    }
  }
  Check(false, "/proc/self/status has the resident memory");
  return 0;
}

template <class Subject>
Figures MeasureResident(Fill fill, std::uint64_t entries, unsigned threads) {
  Figures figures;
  const double before = ResidentBytes("VmRSS");
  const Clock::time_point creating = Clock::now();
  auto subject = std::make_unique<Subject>(fill == GROWN ? SMALL_TABLE : entries);
  figures["createMilliseconds"] = Seconds(Clock::now() - creating) * 1e3;
  figures["createdMebibytes"] = (ResidentBytes("VmRSS") - before) / (1024.0 * 1024.0);
  // Keys are made on the way: lists of them would be resident too.
  const Measured filled = Parallel(threads, entries, [&](std::uint64_t begin, std::uint64_t end) {
    Tally tally;
    for (std::uint64_t i = begin; i < end; ++i) {
      const long key = KeyAt(i);
      tally.count +=
          fill == SIZED_FIND_OR_INSERT ? subject->Train(key, ValueOf(key)) : subject->Insert(key, ValueOf(key));
    }
    return tally;
  });
  Check(filled.tally.count == entries, "every key was new");
  figures["fillSeconds"] = filled.seconds;
  figures["bytesAnEntry"] = (ResidentBytes("VmRSS") - before) / static_cast<double>(entries);
  figures["peakBytesAnEntry"] = (ResidentBytes("VmHWM") - before) / static_cast<double>(entries);
  const Clock::time_point destroying = Clock::now();
  subject.reset();
  figures["destroyMilliseconds"] = Seconds(Clock::now() - destroying) * 1e3;
  return figures;
}

}  // namespace Bench
