// A stream of training steps that comes out the same on any table that is in the same state, whatever the number of
// threads: each key belongs to one of them, and a step makes the new value bytes from the old ones. So two tables that
// are equal before a round are equal after it, and any difference between them is carried on.
#pragma once

#include <cstdint>

#include <kavo.hpp>

namespace IncrementalExport {

struct StreamOptions {
  std::uint64_t entries = 200'000;  // keys that the base phase offers
  std::uint64_t seed = 1;
  unsigned threads = 2;
};

// Of filter tables: how often a key is offered until it gets a value.
inline constexpr unsigned FILTER_FREQUENCY = 4;

struct StreamFacts {
  std::uint64_t keys = 0;    // offered
  std::uint64_t values = 0;  // written
};

class Stream {
 public:
  explicit Stream(const StreamOptions& options) : m_options(options) {}

  // Fills an empty table: most keys by training, some ready-made, a part of these due in full exports only.
  StreamFacts Base(const kavo::Table& table) const;
  // Round 1, 2, ... changes a tenth of the keys in place and offers a twentieth of the base's number in new ones.
  StreamFacts Round(const kavo::Table& table, unsigned round) const;

 private:
  template <typename Action>
  StreamFacts OnAllThreads(std::uint64_t keys, Action action) const;
  long KeyOf(std::uint64_t number) const;

  const StreamOptions m_options;
};

// One training step on one key: counts an occurrence, and works on the value in place if the key has one.
// Returns how many values it wrote.
std::uint64_t Train(const kavo::Table& table, long key, std::uint64_t salt);

}  // namespace IncrementalExport
