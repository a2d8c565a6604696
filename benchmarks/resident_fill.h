// What the child process of resident.h does with its table.
#pragma once

#include <memory>

#include "check.h"
#include "parallel.h"
#include "resident.h"
#include "workloads.h"

namespace Bench {

template <class Subject>
Resident MeasureResident(Fill fill, std::uint64_t entries, unsigned threads) {
  Resident resident;
  const double before = ResidentBytes();
  const Clock::time_point creating = Clock::now();
  auto subject = std::make_unique<Subject>(fill == Fill::GROWN ? SMALL_TABLE : entries);
  resident.createMilliseconds = Seconds(Clock::now() - creating) * 1e3;
  resident.createdMebibytes = (ResidentBytes() - before) / (1024.0 * 1024.0);
  // Keys are made on the way: lists of them would be resident too.
  const Measured filled = Parallel(threads, entries, [&](std::uint64_t begin, std::uint64_t end) {
    Tally tally;
    for (std::uint64_t i = begin; i < end; ++i) {
      const long key = KeyAt(i);
      tally.count +=
          fill == Fill::SIZED_FIND_OR_INSERT ? subject->Train(key, ValueOf(key)) : subject->Insert(key, ValueOf(key));
    }
    return tally;
  });
  Check(filled.tally.count == entries, "every key was new");
  resident.fillSeconds = filled.seconds;
  resident.bytesAnEntry = (ResidentBytes() - before) / static_cast<double>(entries);
  resident.peakBytesAnEntry = (PeakResidentBytes() - before) / static_cast<double>(entries);
  const Clock::time_point destroying = Clock::now();
  subject.reset();
  resident.destroyMilliseconds = Seconds(Clock::now() - destroying) * 1e3;
  return resident;
}

}  // namespace Bench
