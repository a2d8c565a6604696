// Whether shards together are a model, as far as a host can see.
#pragma once

#include "incremental_export/model.h"

namespace IncrementalExport {

struct Comparison {
  std::uint64_t rows = 0;         // of the model
  std::uint64_t values = 0;       // of its table
  std::uint64_t differences = 0;  // keys that are not the same, or not there, or in too many places
};

// Each row stands in the shard that owns its key, with the same bytes of weights and state and the same last step, each
// value of the table too, and the shards have nothing else. Nobody may work on them meanwhile.
Comparison Compare(const Model& model, const Shards& shards);

}  // namespace IncrementalExport
