#include "incremental_export/table_scan.h"

#include <fmt/format.h>

namespace IncrementalExport {
namespace {

bool Take(kavo::Entries::Iterator& head, long key) {
  if (head == std::default_sentinel || head->key != key) {
    return false;
  }
  ++head;
  return true;
}

}  // namespace

TableScan::TableScan(const kavo::Table& table)
    : m_tableId(table.Id()),
      m_all(table.Export(kavo::ExportMode::ALL)),
      m_changed(table.Export(kavo::ExportMode::UNMARKED)),
      m_exported(table.Export(kavo::ExportMode::MARKED)),
      m_next(m_all.begin()),
      m_nextChanged(m_changed.begin()),
      m_nextExported(m_exported.begin()) {}

std::optional<ScannedEntry> TableScan::Next() {
  if (m_next == std::default_sentinel) {
    if (m_nextChanged != std::default_sentinel || m_nextExported != std::default_sentinel) {
      throw std::runtime_error(fmt::format("table {} was changed while it was scanned", m_tableId));
    }
    return std::nullopt;
  }
  const KavoHtBatchElement element = *m_next;
  ++m_next;
  // Both, since a key without a value is given in every mode.
  const bool changed = Take(m_nextChanged, element.key);
  const bool exported = Take(m_nextExported, element.key);
  ExportState state = ExportState::FULL_ONLY;
  if (element.value == nullptr) {
    state = ExportState::NONE;
  } else if (changed) {
    state = ExportState::CHANGED;
  } else if (exported) {
    state = ExportState::EXPORTED;
  }
  return ScannedEntry{element.key, element.value, element.count, state};
}

}  // namespace IncrementalExport
