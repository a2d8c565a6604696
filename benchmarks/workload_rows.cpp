#include "workload_rows.h"

#include "kavo_layout.h"

namespace Bench {
namespace {

// Cache lines that a whole value lies on, on average over the eight positions that it can have in a line.
constexpr double WHOLE_VALUE_LINES = 1 + 7.0 / 8;

}  // namespace

std::array<RowInfo, ROWS> RowInfos(std::uint64_t entries, const KeySets& keys) {
  const auto count = static_cast<double>(entries);
  const double cellBytes = static_cast<double>(CELL_BYTES * PreSizedCells(entries)) / count;
  // While a table grows each entry is moved once on average: one cell read, one written, in order.
  const double moveBytes = 2 * CELL_BYTES;
  // Frequent keys stay in the processor's caches: lines are counted once for each key that comes up.
  const double distinct = static_cast<double>(keys.training.distinctKeys) / count;
  const double trainingLines = distinct * (1 + WHOLE_VALUE_LINES);

  std::array<RowInfo, ROWS> rows{};
  rows[BUILD_SMALL] = {"build_small", "build from 1,000", BUILD_SMALL, false, 1, BLOCK_BYTES + moveBytes};
  rows[BUILD_SMALL_BATCH] = {"build_small_batch",    "build from 1,000, batches", BUILD_SMALL, false, 1,
                             BLOCK_BYTES + moveBytes};
  rows[BUILD_SIZED] = {"build_sized", "build pre-sized", BUILD_SIZED, false, 1, BLOCK_BYTES};
  rows[BUILD_SIZED_BATCH] = {"build_sized_batch", "build pre-sized, batches", BUILD_SIZED, false, 1, BLOCK_BYTES};
  rows[HIT] = {"hit", "hits", HIT, false, 2, 0};
  rows[HIT_GROWN] = {"hit_grown", "hits, table grown from 1,000", HIT_GROWN, false, 2, 0};
  rows[BATCH_HIT] = {"batch_hit", "batched hits", BATCH_HIT, false, 2, 0};
  rows[BATCH_COPY] = {"batch_copy", "batched hits, values copied", BATCH_COPY,
                      false,        1 + WHOLE_VALUE_LINES,         VALUE_BYTES};
  rows[MISS] = {"miss", "misses", MISS, false, 1, 0};
  rows[BATCH_MISS] = {"batch_miss", "batched misses", BATCH_MISS, false, 1, 0};
  rows[TRAINING] = {"training", "training mix, batches", TRAINING, false, trainingLines, 0};
  rows[TRAINING_SINGLE] = {"training_single", "training mix, single calls", TRAINING, false, trainingLines, 0};
  rows[EXPORT] = {"export", "export, keys and addresses", EXPORT, true, 0, cellBytes};
  rows[EXPORT_VALUES] = {"export_values", "export, values read", EXPORT_VALUES, true, 1, cellBytes};
  return rows;
}

}  // namespace Bench
