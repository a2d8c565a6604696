// A table of the comparison, as the program sees it: what can be run on it.
#pragma once

#include <cstdint>
#include <vector>

#include "figures.h"
#include "growth_latency.h"
#include "keys.h"
#include "resident.h"

namespace Bench {

struct SubjectEntry {
  const char* name;
  // Nanoseconds an operation of each row that the table has; null for what is no table.
  Figures (*round)(const KeySets& keys, unsigned threads);
  GrowthLatency (*growthLatency)(std::uint64_t entries);  // null for a table that does not grow
  std::vector<Fill> fills;                                // for the resident bytes, each in its own process
  Figures (*resident)(Fill fill, std::uint64_t entries, unsigned threads);
};

// Each is compiled by itself.
SubjectEntry TbbEntry();
SubjectEntry CuckooEntry();
SubjectEntry KavoWholeEntry();
SubjectEntry KavoGradualEntry();
SubjectEntry FloorEntry();

// Growth without a table: entries written one after the other, read at random. What fresh memory, the clock and the
// scheduler do to the latencies by themselves.
SubjectEntry BareMemoryEntry();

}  // namespace Bench
