// What an export asks the processor to bring closer while it walks over a table. Cells come in order, which the
// processor foresees; blocks and filter records lie anywhere. Distances are measured: with a third of them an
// export that selects is a seventh slower, with twice as much it is no faster.
#pragma once

#include <cstdint>

#include "platform/prefetch.h"
#include "table/filter_record.h"

namespace Qen {

inline constexpr std::uint64_t BLOCK_CELLS_AHEAD = 48;
inline constexpr std::uint64_t RECORD_CELLS_AHEAD = 96;

// For basic tables.
struct BlockHint {
  template <class Core>
  void operator()(const Core& core, std::uint64_t index) const noexcept {
    if (blocks) {
      PrefetchForRead(core.BlockOf(core.CellAt(index + BLOCK_CELLS_AHEAD).value));
    }
  }
  bool blocks;  // whether the walk reads them
};

// For filter tables: the record first; once it is here, the block that it names.
struct RecordHint {
  template <class Core>
  void operator()(const Core& core, std::uint64_t index) const noexcept {
    PrefetchForRead(core.BlockOf(core.CellAt(index + RECORD_CELLS_AHEAD).value));
    if (blocks) {
      const FilterRecord* record = core.BlockOf(core.CellAt(index + BLOCK_CELLS_AHEAD).value);
      if (record != nullptr) {
        PrefetchForRead(record->value.load(std::memory_order_relaxed));  // relaxed: the address only, for a hint
      }
    }
  }
  bool blocks;
};

}  // namespace Qen
