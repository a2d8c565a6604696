// How long single inserts take while a table grows from few entries, and single lookups on another thread meanwhile.
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

struct CallTimes {
  static constexpr std::size_t SLICES = 200;

  Histogram all;
  // The worst of each two-hundredth of the growth, by entries.
  std::array<std::uint64_t, SLICES> worstOfSlices{};

  // Runs `call` and notes how long it took; `progress` of `entries` is how far the table has grown.
  template <class Call>
  bool Time(std::uint64_t progress, std::uint64_t entries, const Call& call) {
    const Clock::time_point begin = Clock::now();
    const bool result = call();
    const auto time = static_cast<std::uint64_t>(std::chrono::nanoseconds(Clock::now() - begin).count());
    all.Add(time);
    std::uint64_t& worst = worstOfSlices[progress * SLICES / entries];
    worst = std::max(worst, time);
    return result;
  }
};

struct GrowthLatency {
  CallTimes inserts;
  CallTimes lookups;
};

// One inserting thread, one that looks up keys whose insert has returned, chosen at random.
template <class Subject>
GrowthLatency MeasureGrowth(std::uint64_t entries, std::uint64_t firstEntries) {
  GrowthLatency result;
  Subject subject(firstEntries);
  for (std::uint64_t i = 0; i < firstEntries; ++i) {
    subject.Insert(KeyAt(i), ValueOf(KeyAt(i)));
  }
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
      Check(result.lookups.Time(present, entries, [&] { return subject.Find(key, sum); }),
            "a key whose insert has returned is found while the table grows");
    }
  });
  for (std::uint64_t i = firstEntries; i < entries; ++i) {
    const long key = KeyAt(i);
    const Value value = ValueOf(key);
    Check(result.inserts.Time(i, entries, [&] { return subject.Insert(key, value); }),
          "a new key is inserted while the table grows");
    inserted.store(i + 1, std::memory_order_release);
  }
  reader.join();
  return result;
}

}  // namespace Bench
