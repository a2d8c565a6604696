// What is trained, and so what a row must be at any time.
//
// Rows start at zeros, and each step adds 1 to all coordinates: so those of a row are equal at every moment, and say
// how often it was trained. Round 0 makes the first rows, and each round after it makes new ones and trains some of
// those that are there. A snapshot follows each round.
#pragma once

#include <cstdint>

#include "embedding.h"

namespace Serving {

struct Plan {
  std::uint64_t rows = 200'000;  // of round 0
  unsigned dim = 16;
  unsigned rounds = 10;  // after round 0

  // Rows have numbers; those of a round are the ones below this.
  std::uint64_t Known(unsigned round) const { return rows + round * (rows / 10); }
  bool IsTrained(std::uint64_t number, unsigned round) const;
  // How often row `number` was trained when the round is over.
  unsigned TimesTrained(std::uint64_t number, unsigned round) const;
};

// The key of a row: any 64 bits.
long KeyOf(std::uint64_t number);

// Trains and saves rounds `first` to `last`. From the second on it goes on from the newest snapshot.
void TrainRounds(const Plan& plan, const char* folder, unsigned first, unsigned last, double pauseSeconds);

}  // namespace Serving
