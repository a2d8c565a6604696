#include "incremental_export/compare.h"

#include <algorithm>
#include <cstring>

namespace IncrementalExport {
namespace {

struct RowsWithState {
  RowsWithState(const Model& model, std::span<const long> keys)
      : floats(keys.size() * KavoEmbeddingRowFloats(model.Rows().get())), steps(keys.size()), found(keys.size()) {
    Examples::Check(
        KavoEmbeddingGetRows(model.Rows().get(), keys.data(), keys.size(), floats.data(), steps.data(), found.data()));
  }
  bool operator==(const RowsWithState&) const = default;

  std::vector<float> floats;
  std::vector<unsigned long long> steps;
  std::vector<unsigned char> found;
};

const Model& OwnerOf(const Shards& shards, long key) {
  unsigned owner = 0;
  Examples::Check(KavoOwners(&key, 1, static_cast<unsigned>(shards.size()), &owner));
  return shards[owner];
}

}  // namespace

Comparison Compare(const Model& model, const Shards& shards) {
  Comparison result;
  void* cursor = nullptr;
  do {
    std::vector<long> keys(1024);
    unsigned long long num = 0;
    Examples::Check(KavoEmbeddingNextKeys(model.Rows().get(), &cursor, keys.data(), keys.size(), &num));
    for (const long key : std::span(keys).first(num)) {
      const RowsWithState here(model, {&key, 1});
      const RowsWithState there(OwnerOf(shards, key), {&key, 1});
      result.differences += here == there ? 0 : 1;
      ++result.rows;
    }
  } while (cursor != nullptr);

  for (const KavoHtBatchElement& entry : model.Visits().Export(kavo::ExportMode::ALL)) {
    const kavo::Table& there = OwnerOf(shards, kavo::UnmixKey(entry.key)).Visits();
    const auto value = there.TryLookup(entry.key);
    result.differences += value && std::ranges::equal(*value, model.Visits().At(entry.value)) ? 0 : 1;
    ++result.values;
  }

  // All that the model has was found once; more would be in the shards' own counts.
  std::uint64_t rows = 0;
  std::uint64_t values = 0;
  for (const Model& shard : shards) {
    rows += Examples::StatsOf(shard.Rows()).rows;
    values += shard.Visits().CountEntries();
  }
  result.differences += rows > result.rows ? rows - result.rows : 0;
  result.differences += values > result.values ? values - result.values : 0;
  return result;
}

}  // namespace IncrementalExport
