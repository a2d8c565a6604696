#include "incremental_export/table_scan.h"

#include <fmt/format.h>

namespace IncrementalExport {
namespace {

bool Take(const KavoHtBatchElement*& head, TableCursor& cursor, long key) {
  if (head == nullptr || head->key != key) {
    return false;
  }
  head = cursor.Next();
  return true;
}

}  // namespace

TableScan::TableScan(const KavoTable& table)
    : m_tableId(table.Id()),
      m_all(table, ExportMode::ALL),
      m_changed(table, ExportMode::CHANGED),
      m_exported(table, ExportMode::EXPORTED),
      m_nextChanged(m_changed.Next()),
      m_nextExported(m_exported.Next()) {}

std::optional<ScannedEntry> TableScan::Next() {
  const KavoHtBatchElement* element = m_all.Next();
  if (element == nullptr) {
    if (m_nextChanged != nullptr || m_nextExported != nullptr) {
      throw KavoError(fmt::format("table {} was changed while it was scanned", m_tableId));
    }
    return std::nullopt;
  }
  // Both, since a key without a value is given in every mode.
  const bool changed = Take(m_nextChanged, m_changed, element->key);
  const bool exported = Take(m_nextExported, m_exported, element->key);
  ExportState state = ExportState::FULL_ONLY;
  if (element->value == nullptr) {
    state = ExportState::NONE;
  } else if (changed) {
    state = ExportState::CHANGED;
  } else if (exported) {
    state = ExportState::EXPORTED;
  }
  return ScannedEntry{element->key, element->value, element->count, state};
}

}  // namespace IncrementalExport
