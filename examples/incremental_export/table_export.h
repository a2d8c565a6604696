// Exports of one table: a full snapshot, then increments that hold what changed since the file before.
//
// How the modes are combined. Each export has two steps: write the file without touching the table's marks (a full one
// by a scan over all entries, an increment by mode UNMARKED), and once the file is safely on the disk, mark what it
// holds by a walk in mode UNMARKED_MARK. The walk that marks could write the file as well, and save a pass. But then an
// export that failed half way would leave entries marked that are in no file, and no later increment would bring them.
//
// What an increment holds: every entry whose value was written since (by KavoInsertOrUpdate or KavoUpdate, in place
// after KavoLookupForUpdate, or because it is new), and in a filter table every key that is only counted, with its
// count. It does not hold entries inserted with state FULL_ONLY after the full snapshot, nor the count of an admitted
// key whose value did not change.
#pragma once

#include <optional>
#include <string>

#include <kavo.hpp>
#include "incremental_export/snapshot_format.h"

namespace IncrementalExport {

// No other thread may write to the table, values included, while one of the functions runs. A failure throws; when it
// is a SnapshotError, marks and the file that stood at the path are as before, and the export can be repeated.
class TableExport {
 public:
  // Begins with a full snapshot.
  explicit TableExport(const kavo::Table& table) : m_table(table) {}
  // Goes on from the file that the table was last exported to, or restored from.
  TableExport(const kavo::Table& table, const SnapshotHeader& last) : m_table(table), m_last(last) {}

  // Returns the file's header.
  SnapshotHeader WriteFull(const std::string& path);
  // Throws std::logic_error when there is nothing that it could follow.
  SnapshotHeader WriteIncrement(const std::string& path);

 private:
  SnapshotHeader NewHeader() const;

  const kavo::Table& m_table;
  std::optional<SnapshotHeader> m_last;  // of the newest file
};

// Marks every changed entry as exported. Returns how many entries the walk gave, keys without a value among them.
std::uint64_t MarkChangedExported(const kavo::Table& table);

}  // namespace IncrementalExport
