// The workloads, one row of the report each: what it is called, what it is compared with, and what its memory accesses
// would cost by themselves.
#pragma once

#include <vector>

#include "kavo_layout.h"
#include "keys.h"

namespace Bench {

struct Row {
  const char* id;
  const char* title;
  const char* comparedWith;  // the row of oneTBB that is the measure; another one where oneTBB has no such call
  bool oneThread;

  // What an operation on Kavo's layout reads or writes at least: cache lines at random places, and bytes in order.
  double lines;
  double bytes;
};

// In the order of the report. What is measured in a round (workloads.h) and stands here is in tables and plots.
inline std::vector<Row> Rows(const KeySets& keys) {
  const auto entries = static_cast<double>(keys.present.size());
  const double block = BLOCK_BYTES;
  const double cells = static_cast<double>(CELL_BYTES * PreSizedCells(keys.present.size())) / entries;
  // While a table grows each entry is moved once on average: one cell read, one written, in order.
  const double grown = BLOCK_BYTES + 2 * CELL_BYTES;
  const double wholeValue = 1 + WHOLE_VALUE_LINES;
  // Frequent keys stay in the processor's caches: lines are counted once for each key that comes up.
  const double training = static_cast<double>(keys.training.distinctKeys) / entries * wholeValue;
  return {
      {"build_small", "build from 1,000", "build_small", false, 1, grown},
      {"build_small_batch", "build from 1,000, batches", "build_small", false, 1, grown},
      {"build_sized", "build pre-sized", "build_sized", false, 1, block},
      {"build_sized_batch", "build pre-sized, batches", "build_sized", false, 1, block},
      {"hit", "hits", "hit", false, 2, 0},
      {"hit_grown", "hits, table grown from 1,000", "hit_grown", false, 2, 0},
      {"batch_hit", "batched hits", "batch_hit", false, 2, 0},
      {"batch_copy", "batched hits, values copied", "batch_copy", false, wholeValue, VALUE_BYTES},
      {"miss", "misses", "miss", false, 1, 0},
      {"batch_miss", "batched misses", "batch_miss", false, 1, 0},
      {"training", "training mix, batches", "training", false, training, 0},
      {"training_single", "training mix, single calls", "training", false, training, 0},
      {"export", "export, keys and addresses", "export", true, 0, cells},
      {"export_values", "export, values read", "export_values", true, 1, cells},
  };
}

}  // namespace Bench
