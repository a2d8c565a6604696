#include "incremental_export/compare.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "incremental_export/table_scan.h"

namespace IncrementalExport {
namespace {

constexpr std::size_t DESCRIBED = 10;

// By key.
std::vector<ScannedEntry> SortedEntries(const kavo::Table& table) {
  std::vector<ScannedEntry> entries;
  entries.reserve(table.CountEntries(false));
  TableScan scan(table);
  while (const std::optional<ScannedEntry> entry = scan.Next()) {
    entries.push_back(*entry);
  }
  std::ranges::sort(entries, {}, &ScannedEntry::key);
  return entries;
}

const char* NameOf(ExportState state) {
  switch (state) {
    case ExportState::NONE:
      return "without a value";
    case ExportState::EXPORTED:
      return "exported";
    case ExportState::FULL_ONLY:
      return "in full exports only";
    case ExportState::CHANGED:
      return "changed";
  }
  return "of an unknown state";
}

// Empty if they do not differ.
std::string DifferenceOf(const ScannedEntry& first, const ScannedEntry& second, const kavo::Table& secondTable) {
  if (first.state != second.state) {
    return fmt::format("{} in the first table, {} in the second", NameOf(first.state), NameOf(second.state));
  }
  if (first.count != second.count) {
    return fmt::format("count {} in the first table, {} in the second", first.count, second.count);
  }
  if (first.value != nullptr && std::memcmp(first.value, second.value, secondTable.ValueLen()) != 0) {
    return "other value bytes";
  }
  if (secondTable.Lookup(first.key).data() != second.value) {
    return "a lookup in the second table gives another address than its export";
  }
  return {};
}

void Add(Comparison& result, long key, const std::string& difference) {
  ++result.differences;
  if (result.description.size() < DESCRIBED) {
    result.description.push_back(fmt::format("key {}: {}", key, difference));
  }
}

void Tally(Comparison& result, const std::vector<ScannedEntry>& entries) {
  result.entries = entries.size();
  for (const ScannedEntry& entry : entries) {
    result.admitted += entry.value != nullptr ? 1 : 0;
    result.changed += entry.state == ExportState::CHANGED ? 1 : 0;
    result.fullOnly += entry.state == ExportState::FULL_ONLY ? 1 : 0;
  }
}

// The library counts for itself.
void CheckCounts(const kavo::Table& table, const Comparison& tally) {
  if (table.CountEntries(false) != tally.entries || table.CountEntries(true) != tally.admitted) {
    throw std::runtime_error(fmt::format("table {} counts other numbers of entries than it exports", table.Id()));
  }
}

}  // namespace

Comparison Compare(const kavo::Table& first, const kavo::Table& second) {
  if (first.Type() != second.Type() || first.ValueLen() != second.ValueLen()) {
    throw std::invalid_argument("only tables of one type and value length can be compared");
  }
  const std::vector<ScannedEntry> left = SortedEntries(first);
  const std::vector<ScannedEntry> right = SortedEntries(second);
  Comparison result;
  Tally(result, right);
  CheckCounts(second, result);
  result = Comparison{};
  Tally(result, left);
  CheckCounts(first, result);

  auto inLeft = left.begin();
  auto inRight = right.begin();
  while (inLeft != left.end() || inRight != right.end()) {
    if (inRight == right.end() || (inLeft != left.end() && inLeft->key < inRight->key)) {
      Add(result, inLeft++->key, "only in the first table");
    } else if (inLeft == left.end() || inRight->key < inLeft->key) {
      Add(result, inRight++->key, "only in the second table");
    } else {
      const std::string difference = DifferenceOf(*inLeft++, *inRight, second);
      if (!difference.empty()) {
        Add(result, inRight->key, difference);
      }
      ++inRight;
    }
  }
  return result;
}

}  // namespace IncrementalExport
