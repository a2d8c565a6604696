// One walk over a table's entries, in batches, by the library's export cursor.
#pragma once

#include <cstddef>
#include <vector>

#include "incremental_export/kavo_table.h"

namespace IncrementalExport {

// Which entries a walk gives. A filter table gives every key that has no value yet as well, whatever the mode.
enum class ExportMode : unsigned {
  ALL = KAVO_EXPORT_ALL,
  EXPORTED = KAVO_EXPORT_MARKED,
  CHANGED_MARK = KAVO_EXPORT_UNMARKED_MARK,  // changed entries, which the walk makes exported ones as it goes
  CHANGED = KAVO_EXPORT_UNMARKED,
};

// No new key may be inserted from the first call of Next to the last.
class TableCursor {
 public:
  static constexpr std::size_t BATCH = 512;

  TableCursor(const KavoTable& table, ExportMode mode);

  // The next entry, until the next call; null at the end. Each entry is given once.
  const KavoHtBatchElement* Next();

 private:
  void Fetch();

  const unsigned m_tableId;
  const ExportMode m_mode;
  std::vector<KavoHtBatchElement> m_batch;
  unsigned m_filled = 0;     // elements of the batch
  unsigned m_next = 0;       // the one to give next
  void* m_cursor = nullptr;  // where the library goes on
  bool m_ended = false;
};

// The walk in a call: `use(element)` for each entry.
template <typename Use>
void ForEachEntry(const KavoTable& table, ExportMode mode, Use use) {
  TableCursor cursor(table, mode);
  while (const KavoHtBatchElement* element = cursor.Next()) {
    use(*element);
  }
}

}  // namespace IncrementalExport
