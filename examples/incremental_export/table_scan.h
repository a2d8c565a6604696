// All entries of a table, each with its export state.
//
// An entry does not tell its state; what tells it is which modes give the entry. So three walks go in step, one over
// all entries, one over the changed and one over the exported: an entry that stands at the head of one of the latter is
// of that state, and an entry of neither is due in full exports only. That takes no memory, and rests on one thing:
// walks of a table that does not change pass its entries in the same order. Were that ever broken, an entry would be
// left at the head of its walk, and the scan would end with an error rather than with a wrong state.
#pragma once

#include <cstdint>
#include <kavo.hpp>
#include <optional>

#include "incremental_export/snapshot_format.h"

namespace IncrementalExport {

struct ScannedEntry {
  long key;
  unsigned char* value;  // inside the table; null for a key that is only counted
  std::uint32_t count;
  ExportState state;
};

// The table must not be written to meanwhile.
class TableScan {
 public:
  explicit TableScan(const kavo::Table& table);
  // None at the end. Throws std::runtime_error if the table was changed meanwhile.
  std::optional<ScannedEntry> Next();

 private:
  const unsigned m_tableId;
  kavo::Entries m_all;
  kavo::Entries m_changed;
  kavo::Entries m_exported;
  kavo::Entries::Iterator m_next;
  kavo::Entries::Iterator m_nextChanged;
  kavo::Entries::Iterator m_nextExported;
};

}  // namespace IncrementalExport
