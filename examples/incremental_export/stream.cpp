#include "incremental_export/stream.h"

#include <future>
#include <vector>

#include "pseudo_random.h"

namespace IncrementalExport {
namespace {

using PseudoRandom::Mix;

// Stands for a gradient step: every byte depends on what it was and on the salt.
void Step(std::span<unsigned char> value, std::uint64_t salt) {
  std::uint64_t word = salt;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (i % sizeof(word) == 0) {
      word = Mix(word);
    }
    value[i] = static_cast<unsigned char>(value[i] * 5U + (word >> (8 * (i % sizeof(word)))));
  }
}

// Keys that some other source brings ready-made, one of 16 for each kind.
std::uint64_t InsertReadyMade(const kavo::Table& table, long key, std::uint64_t salt, unsigned kind) {
  constexpr unsigned COUNT = FILTER_FREQUENCY - 1;
  std::vector<unsigned char> value(table.ValueLen());
  Step(value, salt);
  if (kind == 0) {
    table.Insert(key, value, COUNT, kavo::NewState::FULL_ONLY);
  } else if (kind == 1) {
    table.Insert(key, value, COUNT, kavo::NewState::EXPORTED);
  } else if (table.Type() == kavo::TableType::BASIC) {
    table.Insert(key, value, COUNT, kavo::NewState::CHANGED);
  } else {
    table.TryInsertCounted(key, COUNT);
    return 0;
  }
  return 1;
}

}  // namespace

std::uint64_t Train(const kavo::Table& table, long key, std::uint64_t salt) {
  if (!table.LookupOrInsert(key).row) {
    return 0;  // counted, and not offered often enough yet
  }
  // LookupOrInsert leaves the export state alone. Without this the change would be in no increment.
  Step(table.LookupForUpdate(key), salt);
  return 1;
}

// One-to-one, so that no two threads ever get one key.
long Stream::KeyOf(std::uint64_t number) const {
  constexpr std::uint64_t KEYS = ~std::uint64_t{0} >> 1;
  return kavo::MixKey(static_cast<long>((number + Mix(m_options.seed)) & KEYS));
}

// `action(number, facts)` for each key's number below `keys`.
template <typename Action>
StreamFacts Stream::OnAllThreads(std::uint64_t keys, Action action) const {
  std::vector<std::future<StreamFacts>> threads;
  for (unsigned thread = 0; thread < m_options.threads; ++thread) {
    threads.push_back(std::async(std::launch::async, [this, keys, thread, &action] {
      StreamFacts facts;
      for (std::uint64_t number = thread; number < keys; number += m_options.threads) {
        action(number, facts);
      }
      return facts;
    }));
  }
  StreamFacts sum;
  for (std::future<StreamFacts>& thread : threads) {
    const StreamFacts facts = thread.get();
    sum.keys += facts.keys;
    sum.values += facts.values;
  }
  return sum;
}

StreamFacts Stream::Base(const kavo::Table& table) const {
  if (table.Type() == kavo::TableType::FILTER) {
    table.SetFilterFrequency(FILTER_FREQUENCY);
  }
  return OnAllThreads(m_options.entries, [this, &table](std::uint64_t number, StreamFacts& facts) {
    constexpr unsigned READY_MADE_KINDS = 3;
    const long key = KeyOf(number);
    const std::uint64_t salt = Mix(number);
    ++facts.keys;
    if (number % 16 < READY_MADE_KINDS) {
      facts.values += InsertReadyMade(table, key, salt, static_cast<unsigned>(number % 16));
      return;
    }
    // From 1 to 7 times, which leaves a part of a filter table's keys without a value.
    const std::uint64_t times = table.Type() == kavo::TableType::FILTER ? 1 + salt % 7 : 1;
    for (std::uint64_t i = 0; i < times; ++i) {
      facts.values += Train(table, key, salt + i);
    }
  });
}

StreamFacts Stream::Round(const kavo::Table& table, unsigned round) const {
  if (table.Type() == kavo::TableType::FILTER) {
    table.SetFilterFrequency(FILTER_FREQUENCY);  // a restored table does not know it: no export tells it
  }
  const std::uint64_t perRound = m_options.entries / 20;
  const std::uint64_t known = m_options.entries + (round - 1) * perRound;
  return OnAllThreads(known + perRound, [this, &table, known, round](std::uint64_t number, StreamFacts& facts) {
    const std::uint64_t salt = Mix(number ^ Mix(round));
    if (number >= known || salt % 10 == 0) {
      ++facts.keys;
      facts.values += Train(table, KeyOf(number), salt);
    }
  });
}

}  // namespace IncrementalExport
