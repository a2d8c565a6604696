// The keys of all workloads, made once and used by every table.
#pragma once

#include <cstdint>
#include <vector>

namespace Bench {

// The n-th key: well mixed, 63 bits, no two alike.
inline long KeyAt(std::uint64_t n) {
  constexpr std::uint64_t MASK = ~std::uint64_t{0} >> 1;
  n = ((n + 1) * 0x9E3779B97F4A7C15ULL) & MASK;
  n = ((n ^ (n >> 31)) * 0xD6E8FEB86659FD93ULL) & MASK;
  n = ((n ^ (n >> 29)) * 0xBF58476D1CE4E5B9ULL) & MASK;
  return static_cast<long>(n ^ (n >> 32));
}

// A sequence of random numbers, the same in every run.
class Random {
 public:
  explicit Random(std::uint64_t seed) : m_state(seed) {}

  std::uint64_t Next() {
    std::uint64_t z = m_state += 0x9E3779B97F4A7C15ULL;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  // 0 to bound - 1.
  std::uint64_t Below(std::uint64_t bound) {
    __extension__ using Wide = unsigned __int128;
    return static_cast<std::uint64_t>((static_cast<Wide>(Next()) * bound) >> 64U);
  }
  // 0 up to, not including, 1.
  double Unit() { return static_cast<double>(Next() >> 11U) * 0x1p-53; }

 private:
  std::uint64_t m_state;
};

// Steps of training: keys of a heavy-tailed distribution over those that the table holds (the r-th most frequent key
// comes up in proportion to 1/r), and one key in twenty that is new.
struct TrainingKeys {
  std::vector<long> keys;
  std::uint64_t newKeys = 0;
  std::uint64_t distinctKeys = 0;
};

// The keys of a batch.
inline constexpr std::uint64_t BATCH_KEYS = 256;

// What a table is made for that grows to all entries.
inline constexpr std::uint64_t SMALL_TABLE = 1000;

struct KeySets {
  std::vector<long> present;  // every key that is built, in the order of building
  std::vector<long> hits;     // as many, each chosen at random among those
  std::vector<long> misses;   // none of those
  TrainingKeys training;
  TrainingKeys furtherTraining;  // for a second go at the same table: other new keys
  std::uint64_t hitSum = 0;      // of FirstWord over `hits`
};

KeySets MakeKeySets(std::uint64_t entries);

}  // namespace Bench
