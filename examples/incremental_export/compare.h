// Whether two tables are equal, as far as a host can see: the same keys, for each the same value bytes and export
// state, and in filter tables the same count and the same answer to whether it is admitted. Lookups must agree with the
// export.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <kavo.hpp>

namespace IncrementalExport {

struct Comparison {
  std::uint64_t entries = 0;             // of the first table
  std::uint64_t admitted = 0;            // those with a value
  std::uint64_t changed = 0;             // those in state CHANGED
  std::uint64_t fullOnly = 0;            // those in state FULL_ONLY
  std::uint64_t differences = 0;         // keys that differ
  std::vector<std::string> description;  // of the first few

  bool Equal() const { return differences == 0; }
};

// Tables of one type and value length. They must not be written to meanwhile. Takes 24 bytes for each entry of either:
// export gives entries in no particular order.
Comparison Compare(const kavo::Table& first, const kavo::Table& second);

}  // namespace IncrementalExport
