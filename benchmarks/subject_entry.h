// A table of the comparison, as the program sees it: what can be run on it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "growth_latency.h"
#include "keys.h"
#include "resident.h"
#include "workload_rows.h"

namespace Bench {

// Nanoseconds an operation of one round; rows that a table does not have stay empty.
using RoundTimes = std::array<std::optional<double>, ROWS>;

struct SubjectEntry {
  const char* name;
  RoundTimes (*round)(const KeySets& keys, unsigned threads);
  GrowthLatency (*growthLatency)(std::uint64_t entries);  // null for a table that does not grow
  std::vector<Fill> fills;                                // for the resident bytes, each in its own process
  Resident (*resident)(Fill fill, std::uint64_t entries, unsigned threads);
};

// In the order of the report; the first is the measure of all.
const std::vector<SubjectEntry>& Subjects();

const SubjectEntry* FindSubject(std::string_view name);

// Growth without a table: entries written one after the other, read at random. What fresh memory, the clock and the
// scheduler do to the latencies by themselves.
SubjectEntry BareMemoryOnly();

}  // namespace Bench
