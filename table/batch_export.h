// Walking a table for its host: counting its entries, and handing them out in batches. Included by
// es_concurrent_table.h.
//
// Both take the table under its own type, which is final: no entry costs a virtual call.
#pragma once

#include "table/es_concurrent_table.h"

namespace Qen {

template <class TableId, class Key, class Value, class KTraits, class VTraits>
template <class Self, class Hint>
int EsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::GetBatchNext(const Self& self, KavoHtBatchInfo& info,
                                                                           unsigned& realNum, void*& iter,
                                                                           const Hint& hint) {
  const unsigned mode = info.exportMode;
  const unsigned eleNum = info.eleNum;
  realNum = 0;
  self.SetTableType(info);
  ExportCursors<Cursor>& cursors = self.m_batchIters;
  Cursor* cursor = nullptr;
  if (iter == nullptr) {
    cursor = cursors.Open(self.HashTableOwner().GetHashtable(), iter);
    if (cursor == nullptr) {
      KAVO_LOG_EVENT(TABLE_LOG_UNIT, "Memory application failed.");
      return KAVO_NO_MEMORY;
    }
  } else {
    cursor = cursors.Find(iter);
    if (cursor == nullptr) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "iter is not a cursor of this table!");
      return KAVO_INVALID;
    }
  }
  // `iter` has its name before the walk: a lock that fails at the end must not take the caller's way back to it.
  for (; !cursor->AtEnd(); cursor->Next(hint)) {
    if (!self.IsMeetRequirements(mode, cursor->EntryBlock())) {
      continue;
    }
    self.SetBatchInfo(info, *cursor, realNum);
    if (++realNum == eleNum) {
      // A full batch leaves the cursor at its last entry, which the next one looks at again. A batch of one would
      // never get past it.
      if (eleNum == 1) {
        cursor->Next(hint);
      }
      return KAVO_SUCCESS;
    }
  }
  cursors.Close(iter);
  iter = nullptr;
  return KAVO_SUCCESS;
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
template <class Self, class Hint>
unsigned long long EsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::CountEntries(const Self& self,
                                                                                          bool admittedOnly,
                                                                                          const Hint& hint) noexcept {
  unsigned long long count = 0;
  for (Cursor it(self.HashTableOwner().GetHashtable()); !it.AtEnd(); it.Next(hint)) {
    if (!admittedOnly || self.GetValue(it.EntryBlock()) != nullptr) {
      ++count;
    }
  }
  return count;
}

}  // namespace Qen
