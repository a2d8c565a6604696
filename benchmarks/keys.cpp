#include "keys.h"

#include <cmath>
#include <numeric>

#include "value.h"

namespace Bench {
namespace {

constexpr std::uint64_t NEW_KEY_EVERY = 20;

// Rank to entry, one to one, so that frequent keys do not lie side by side.
class Scatter {
 public:
  explicit Scatter(std::uint64_t entries) : m_entries(entries), m_step(2654435761 % entries) {
    while (std::gcd(m_step, entries) != 1) {
      ++m_step;
    }
  }
  std::uint64_t operator()(std::uint64_t rank) const {
    __extension__ using Wide = unsigned __int128;
    return static_cast<std::uint64_t>(static_cast<Wide>(rank) * m_step % m_entries);
  }

 private:
  std::uint64_t m_entries;
  std::uint64_t m_step;
};

// `firstNew` is the index of the first new key.
TrainingKeys MakeTraining(std::uint64_t entries, std::uint64_t firstNew, std::uint64_t seed) {
  TrainingKeys training;
  training.keys.reserve(entries);
  const Scatter scatter(entries);
  std::vector<bool> seen(entries);
  Random random(seed);
  for (std::uint64_t i = 0; i < entries; ++i) {
    if (random.Below(NEW_KEY_EVERY) == 0) {
      training.keys.push_back(KeyAt(firstNew + training.newKeys));
      ++training.newKeys;
      ++training.distinctKeys;
      continue;
    }
    // The logarithm of the rank is uniform.
    const auto rank = static_cast<std::uint64_t>(std::pow(static_cast<double>(entries), random.Unit())) - 1;
    const std::uint64_t entry = scatter(rank);
    training.keys.push_back(KeyAt(entry));
    if (!seen[entry]) {
      seen[entry] = true;
      ++training.distinctKeys;
    }
  }
  return training;
}

}  // namespace

KeySets MakeKeySets(std::uint64_t entries) {
  KeySets sets;
  sets.present.reserve(entries);
  sets.hits.reserve(entries);
  sets.misses.reserve(entries);
  Random random(1);
  for (std::uint64_t i = 0; i < entries; ++i) {
    sets.present.push_back(KeyAt(i));
    const long hit = KeyAt(random.Below(entries));
    sets.hits.push_back(hit);
    sets.hitSum += FirstWord(ValueOf(hit));
    sets.misses.push_back(KeyAt(entries + i));
  }
  sets.training = MakeTraining(entries, 2 * entries, 2);
  sets.furtherTraining = MakeTraining(entries, 3 * entries, 3);
  return sets;
}

}  // namespace Bench
