// The workloads, one row of the report each: what it is called, what it is compared with, and what its memory accesses
// would cost by themselves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "keys.h"

namespace Bench {

enum Row : std::size_t {
  BUILD_SMALL,
  BUILD_SMALL_BATCH,
  BUILD_SIZED,
  BUILD_SIZED_BATCH,
  HIT,
  HIT_GROWN,
  BATCH_HIT,
  BATCH_COPY,
  MISS,
  BATCH_MISS,
  TRAINING,
  TRAINING_SINGLE,
  EXPORT,
  EXPORT_VALUES,
  ROWS
};

struct RowInfo {
  const char* id;
  const char* title;
  Row comparedWith;  // the row of oneTBB that is the measure; another one than this where oneTBB has no such call
  bool oneThread;

  // What an operation on Kavo's layout reads or writes at least: cache lines at random places, and bytes in order.
  double lines;
  double bytes;
};

// A batch is 256 keys.
inline constexpr std::uint64_t BATCH_KEYS = 256;

std::array<RowInfo, ROWS> RowInfos(std::uint64_t entries, const KeySets& keys);

}  // namespace Bench
