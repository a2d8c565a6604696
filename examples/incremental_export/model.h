// What is saved: an embedding, and beside it a table of the base, as a host may have one.
#pragma once

#include <array>
#include <cstdint>
#include <kavo.hpp>
#include <span>
#include <vector>

#include "embedding.h"

namespace IncrementalExport {

class Model {
 public:
  // Made for `rows`, and grows. `tableId` is any id that the process does not use otherwise.
  Model(unsigned tableId, unsigned dim, std::uint64_t rows);

  const Examples::Embedding& Rows() const { return m_rows; }
  // How often each key was trained. A table's keys are not negative, and should be spread: they are mixed.
  const kavo::Table& Visits() const { return m_visits; }
  static long VisitsKey(long key) { return kavo::MixKey(key); }

  std::array<KavoSnapshotItem, 2> Items() const {
    return {Examples::Item("rows", m_rows),
            KavoSnapshotItem{sizeof(KavoSnapshotItem), "visits", nullptr, m_visits.Id()}};
  }

  // One step on a batch of keys, with gradients that follow from key and salt.
  void Train(std::span<const long> keys, std::uint64_t salt) const;

 private:
  unsigned m_dim;
  Examples::Embedding m_rows;
  kavo::Table m_visits;
};

// Shards 0 to n - 1, of which each has the keys that it owns.
using Shards = std::vector<Model>;

// One step of all of them. A shard that owns none of the keys takes the step too: so its rows' numbers and corrections
// by them stay those of one embedding with all keys.
void Train(const Shards& shards, std::span<const long> keys, std::uint64_t salt);

}  // namespace IncrementalExport
