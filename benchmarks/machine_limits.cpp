#include "machine_limits.h"

#include <array>
#include <cstring>

#include "check.h"
#include "keys.h"
#include "parallel.h"

namespace Bench {
namespace {

constexpr std::uint64_t RANDOM_READS = 4'000'000;
constexpr std::size_t AHEAD = 32;

std::uint64_t Word(const unsigned char* address) {
  std::uint64_t word;
  std::memcpy(&word, address, sizeof(word));
  return word;
}

}  // namespace

MachineLimits::MachineLimits(std::uint64_t bytes, unsigned threads)
    : m_lines(bytes / LINE_BYTES), m_threads(threads), m_range(bytes) {
  // Pages that were never written would all be the system's one page of zeros.
  std::memset(m_range.Data(), 1, Bytes());
}

Figures MachineLimits::Measure() const {
  return {{"lineNanoseconds", RandomLineNanoseconds(m_threads)},
          {"bytesASecond", SequentialBytesASecond(m_threads)},
          {"oneThreadLineNanoseconds", RandomLineNanoseconds(1)},
          {"oneThreadBytesASecond", SequentialBytesASecond(1)}};
}

double MachineLimits::RandomLineNanoseconds(unsigned threads) const {
  const Measured measured = Parallel(threads, RANDOM_READS, [this](std::uint64_t begin, std::uint64_t end) {
    Random random(begin);
    std::array<const unsigned char*, AHEAD> requested;
    const auto request = [&](const unsigned char*& slot) {
      slot = m_range.Data() + LINE_BYTES * random.Below(m_lines);
      __builtin_prefetch(slot);
    };
    for (const unsigned char*& slot : requested) {
      request(slot);
    }
    Tally tally;
    for (std::uint64_t i = begin; i < end; ++i) {
      const unsigned char*& slot = requested[i % AHEAD];
      tally.sum += Word(slot);
      request(slot);
    }
    return tally;
  });
  Check(measured.tally.sum == RANDOM_READS * 0x0101010101010101ULL, "every line was read");
  return measured.seconds * 1e9 / static_cast<double>(RANDOM_READS);
}

// One word of each line: that the line comes is what takes time.
double MachineLimits::SequentialBytesASecond(unsigned threads) const {
  const Measured measured = Parallel(threads, m_lines / 4, [this](std::uint64_t begin, std::uint64_t end) {
    std::array<std::uint64_t, 4> sums{};
    for (std::uint64_t i = begin; i < end; ++i) {
      const unsigned char* const lines = m_range.Data() + 4 * LINE_BYTES * i;
      for (std::size_t lane = 0; lane < 4; ++lane) {
        sums[lane] += Word(lines + lane * LINE_BYTES);
      }
    }
    return Tally{0, sums[0] + sums[1] + sums[2] + sums[3]};
  });
  Check(measured.tally.sum == m_lines / 4 * 4 * 0x0101010101010101ULL, "every line was read");
  return static_cast<double>(Bytes()) / measured.seconds;
}

}  // namespace Bench
