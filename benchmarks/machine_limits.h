// What this machine's memory does at best: the measure that no table can beat.
#pragma once

#include <cstdint>

#include "figures.h"
#include "huge_range.h"

namespace Bench {

class MachineLimits {
 public:
  // `bytes` is the range that is accessed: as much memory as the tables use.
  MachineLimits(std::uint64_t bytes, unsigned threads);

  // Of one round: "lineNanoseconds", a cache line at a random place, and "bytesASecond", in order, of all threads
  // together; and both of one thread. Every line is read independently of the others and requested some lines ahead;
  // pages are huge where the system gives them.
  Figures Measure() const;

  std::uint64_t Bytes() const { return m_lines * LINE_BYTES; }

 private:
  static constexpr std::uint64_t LINE_BYTES = 64;

  double RandomLineNanoseconds(unsigned threads) const;
  double SequentialBytesASecond(unsigned threads) const;

  std::uint64_t m_lines;
  unsigned m_threads;
  HugeRange m_range;
};

}  // namespace Bench
