// A table's export cursors: the walks that an export has begun and not ended.
//
// CONTRACT. Any thread may call any member at once; a cursor itself is used by one thread at a time. A cursor's address
// is its name to the host: it is compared before it is followed, so one that is foreign, or was ended, is refused.
// A cursor lives until it is ended or the table is destroyed; abandoned ones wait for the latter.
#pragma once

#include <algorithm>
#include <list>
#include <mutex>
#include <new>

#include "platform/allocation.h"
#include "platform/mutex.h"

namespace Qen {

template <class Cursor>
class ExportCursors {
 public:
  ExportCursors() noexcept = default;
  ExportCursors(const ExportCursors&) = delete;
  ExportCursors& operator=(const ExportCursors&) = delete;

  // A new cursor, at the first entry of `table`; one allocation. Null when there is no memory. Throws what a lock
  // throws.
  template <class Table>
  Cursor* Open(Table& table) {
    Cursors opened;
    try {
      opened.emplace_front(table);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    const std::lock_guard lock(m_mutex);  // not before: the way to the first entry may be long
    m_cursors.splice(m_cursors.begin(), opened);
    return &m_cursors.front();
  }

  // The cursor of that address, or null when there is none. Throws what a lock throws.
  Cursor* Find(const void* address) {
    const std::lock_guard lock(m_mutex);
    return MoveToFront(address) ? &m_cursors.front() : nullptr;
  }

  // Ends a cursor that Open or Find gave. Throws what a lock throws, and then the cursor stays.
  void Close(const Cursor* cursor) {
    Cursors closed;  // destroyed without the lock: the end of the last walk may give memory back
    const std::lock_guard lock(m_mutex);
    if (MoveToFront(cursor)) {
      closed.splice(closed.begin(), m_cursors, m_cursors.begin());
    }
  }

 private:
  using Cursors = std::list<Cursor, HeapAllocator<Cursor>>;

  // Cursors in use gather at the front, so that abandoned ones do not slow the others' searches.
  bool MoveToFront(const void* address) noexcept {
    const auto found = std::find_if(m_cursors.begin(), m_cursors.end(),
                                    [address](const Cursor& cursor) { return &cursor == address; });
    if (found == m_cursors.end()) {
      return false;
    }
    m_cursors.splice(m_cursors.begin(), m_cursors, found);
    return true;
  }

  Mutex m_mutex;
  Cursors m_cursors;  // guarded by m_mutex; the cursors themselves are not
};

}  // namespace Qen
