#pragma once

#include "subject_entry.h"
#include "workloads.h"

namespace Bench {

template <class Subject>
SubjectEntry MakeEntry(std::vector<Fill> fills) {
  SubjectEntry entry;
  entry.name = Subject::NAME;
  entry.round = [](const KeySets& keys, unsigned threads) { return Round<Subject>(keys, threads).Run(); };
  entry.growthLatency = nullptr;
  if constexpr (Subject::GROWS) {
    entry.growthLatency = [](std::uint64_t entries) { return MeasureGrowth<Subject>(entries, SMALL_TABLE); };
  }
  entry.fills = std::move(fills);
  entry.resident = &MeasureResident<Subject>;
  return entry;
}

}  // namespace Bench
