// One measurement: several threads share a range of items and are timed from the first start to the last end.
#pragma once

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

namespace Bench {

using Clock = std::chrono::steady_clock;

inline double Seconds(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

// What a workload counted. Summing it over all items keeps the compiler from leaving out work, and is checked.
struct Tally {
  std::uint64_t count = 0;
  std::uint64_t sum = 0;

  Tally& operator+=(const Tally& other) {
    count += other.count;
    sum += other.sum;
    return *this;
  }
};

struct Measured {
  double seconds = 0;
  Tally tally;
};

// `work(begin, end)` does the items of one thread and returns its Tally.
template <class Work>
Measured Parallel(unsigned threads, std::uint64_t items, const Work& work) {
  struct Part {
    Clock::time_point begin;
    Clock::time_point end;
    Tally tally;
  };
  std::vector<Part> parts(threads);
  std::barrier<> ready(threads);
  const auto run = [&](unsigned i) {
    ready.arrive_and_wait();
    Part part;
    part.begin = Clock::now();
    part.tally = work(items * i / threads, items * (i + 1) / threads);
    part.end = Clock::now();
    parts[i] = part;
  };
  std::vector<std::thread> workers;
  for (unsigned i = 1; i < threads; ++i) {
    workers.emplace_back(run, i);
  }
  run(0);
  for (std::thread& worker : workers) {
    worker.join();
  }
  Clock::time_point begin = parts[0].begin;
  Clock::time_point end = parts[0].end;
  Measured measured;
  for (const Part& part : parts) {
    begin = std::min(begin, part.begin);
    end = std::max(end, part.end);
    measured.tally += part.tally;
  }
  measured.seconds = Seconds(end - begin);
  return measured;
}

}  // namespace Bench
