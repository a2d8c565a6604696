#include "incremental_export/table_export.h"

#include <fmt/format.h>

#include "incremental_export/snapshot_writer.h"
#include "incremental_export/table_scan.h"

namespace IncrementalExport {
namespace {

void MarkWritten(const kavo::Table& table, std::uint64_t expected) {
  const std::uint64_t marked = MarkChangedExported(table);
  if (marked != expected) {
    throw std::logic_error(
        fmt::format("table {} was written to during an export: {} entries were to be marked, {} were;"
                    " take a new full snapshot",
                    table.Id(), expected, marked));
  }
}

}  // namespace

std::uint64_t MarkChangedExported(const kavo::Table& table) {
  kavo::Entries entries = table.Export(kavo::ExportMode::UNMARKED_MARK);
  return static_cast<std::uint64_t>(std::ranges::distance(entries));
}

SnapshotHeader TableExport::NewHeader() const {
  SnapshotHeader header;
  header.tableType = m_table.Type();
  header.valueLen = m_table.ValueLen();
  return header;
}

SnapshotHeader TableExport::WriteFull(const std::string& path) {
  SnapshotWriter writer(path, NewHeader());
  std::uint64_t toMark = 0;
  TableScan scan(m_table);
  while (const std::optional<ScannedEntry> entry = scan.Next()) {
    // What is changed now is exported once this file is there.
    const bool changed = entry->state == ExportState::CHANGED;
    const bool admitted = entry->value != nullptr;
    writer.Append({entry->key, entry->count, changed ? ExportState::EXPORTED : entry->state, admitted, entry->value});
    toMark += changed || !admitted ? 1 : 0;
  }
  const SnapshotHeader header = writer.Commit();
  MarkWritten(m_table, toMark);
  m_last = header;
  return header;
}

SnapshotHeader TableExport::WriteIncrement(const std::string& path) {
  if (!m_last) {
    throw std::logic_error("an increment needs a full snapshot before it");
  }
  SnapshotHeader header = NewHeader();
  header.kind = SnapshotKind::INCREMENT;
  header.sequence = m_last->sequence + 1;
  header.previous = m_last->headerChecksum;
  SnapshotWriter writer(path, header);
  for (const KavoHtBatchElement& element : m_table.Export(kavo::ExportMode::UNMARKED)) {
    const bool admitted = element.value != nullptr;
    writer.Append(
        {element.key, element.count, admitted ? ExportState::EXPORTED : ExportState::NONE, admitted, element.value});
  }
  header = writer.Commit();
  MarkWritten(m_table, header.Records());
  m_last = header;
  return header;
}

}  // namespace IncrementalExport
