// How long single inserts take while a table grows from 1,000 entries, and single lookups on another thread meanwhile.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "check.h"
#include "histogram.h"
#include "keys.h"
#include "parallel.h"
#include "value.h"

namespace Bench {

struct GrowthLatency {
  static constexpr std::size_t SLICES = 200;

  Histogram inserts;
  Histogram lookups;
  // The worst of each two-hundredth of the growth, by entries.
  std::array<std::uint64_t, SLICES> worstInserts{};
  std::array<std::uint64_t, SLICES> worstLookups{};
};

template <class Step>
std::uint64_t TimeOf(const Step& step) {
  const Clock::time_point begin = Clock::now();
  step();
  return static_cast<std::uint64_t>(std::chrono::nanoseconds(Clock::now() - begin).count());
}

// One inserting thread, one that looks up keys whose insert has returned, chosen at random.
template <class Subject>
GrowthLatency MeasureGrowth(std::uint64_t entries, std::uint64_t firstEntries) {
  GrowthLatency result;
  Subject subject(firstEntries);
  for (std::uint64_t i = 0; i < firstEntries; ++i) {
    subject.Insert(KeyAt(i), ValueOf(KeyAt(i)));
  }
  const auto slice = [entries](std::uint64_t n) { return n * GrowthLatency::SLICES / entries; };
  // Release and acquire: whoever sees the number may expect the keys.
  std::atomic<std::uint64_t> inserted{firstEntries};
  std::thread reader([&] {
    Random random(7);
    std::uint64_t sum = 0;
    for (;;) {
      const std::uint64_t present = inserted.load(std::memory_order_acquire);
      if (present == entries) {
        break;
      }
      const long key = KeyAt(random.Below(present));
      bool found = false;
      const std::uint64_t time = TimeOf([&] { found = subject.Find(key, sum); });
      Check(found, "a key whose insert has returned is found while the table grows");
      result.lookups.Add(time);
      std::uint64_t& worst = result.worstLookups[slice(present)];
      worst = std::max(worst, time);
    }
  });
  for (std::uint64_t i = firstEntries; i < entries; ++i) {
    const long key = KeyAt(i);
    const Value value = ValueOf(key);
    bool created = false;
    const std::uint64_t time = TimeOf([&] { created = subject.Insert(key, value); });
    Check(created, "a new key is inserted while the table grows");
    inserted.store(i + 1, std::memory_order_release);
    result.inserts.Add(time);
    std::uint64_t& worst = result.worstInserts[slice(i)];
    worst = std::max(worst, time);
  }
  reader.join();
  return result;
}

}  // namespace Bench
