#include "incremental_export/table_cursor.h"

namespace IncrementalExport {

// The elements start as zeros: the library does not write the count of a basic table's entry.
TableCursor::TableCursor(const KavoTable& table, ExportMode mode)
    : m_tableId(table.Id()), m_mode(mode), m_batch(BATCH) {}

const KavoHtBatchElement* TableCursor::Next() {
  while (m_next == m_filled) {
    if (m_ended) {
      return nullptr;
    }
    Fetch();
  }
  return &m_batch[m_next++];
}

void TableCursor::Fetch() {
  const long last = m_filled > 0 ? m_batch[m_filled - 1].key : -1;  // no key is negative
  KavoHtBatchInfo info{};
  info.elements = m_batch.data();
  info.eleNum = static_cast<unsigned>(m_batch.size());
  info.exportMode = static_cast<unsigned>(m_mode);
  CheckStatus("KavoBatchGetNext", m_tableId, KavoBatchGetNext(m_tableId, &info, &m_filled, &m_cursor));
  m_ended = m_cursor == nullptr;
  // The entry that a full batch ended with comes again at the head of the next one, if it still meets the mode.
  m_next = m_filled > 0 && m_batch.front().key == last ? 1 : 0;
}

}  // namespace IncrementalExport
