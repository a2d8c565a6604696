// A table's export cursors: the walks that an export has begun and not ended.
//
// CONTRACT. Any thread may call any member at once; a cursor itself is used by one thread at a time. The host knows a
// cursor by its name, which is never given again in the process: one of another table, or one that has ended, is
// refused. A cursor lives until it is ended or the table is destroyed; abandoned ones wait for the latter.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <list>
#include <mutex>
#include <new>

#include "platform/allocation.h"
#include "platform/atomic.h"
#include "platform/mutex.h"

namespace Qen {

// Never the same twice. Numbers that no address has: half of the 64-bit range lies outside of every process.
inline void* NewCursorName() noexcept {
  static constinit Atomic<std::uintptr_t> next{std::uintptr_t{1} << 63};
  // Relaxed: that each number is given once is all that counts.
  return std::bit_cast<void*>(next.fetch_add(1, std::memory_order_relaxed));
}

template <class Cursor>
class ExportCursors {
 public:
  ExportCursors() noexcept = default;
  ExportCursors(const ExportCursors&) = delete;
  ExportCursors& operator=(const ExportCursors&) = delete;

  // A new cursor, at the first entry of `table`, and its name; one allocation. Null, and no name, when there is no
  // memory. Throws what a lock throws.
  template <class Table>
  Cursor* Open(Table& table, void*& name) {
    List opened;
    try {
      opened.emplace_front(table);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    const std::lock_guard lock(m_mutex);  // not before: the way to the first entry may be long
    m_list.splice(m_list.begin(), opened);
    name = m_list.front().name;
    return &m_list.front().cursor;
  }

  // The cursor of that name, or null when there is none. Throws what a lock throws.
  Cursor* Find(const void* name) {
    const std::lock_guard lock(m_mutex);
    return MoveToFront(name) ? &m_list.front().cursor : nullptr;
  }

  // Ends the cursor of that name. Throws what a lock throws, and then the cursor stays.
  void Close(const void* name) {
    List closed;  // destroyed without the lock: the end of the last walk may give memory back
    const std::lock_guard lock(m_mutex);
    if (MoveToFront(name)) {
      closed.splice(closed.begin(), m_list, m_list.begin());
    }
  }

 private:
  struct Named {
    template <class Table>
    explicit Named(Table& table) : cursor(table) {}

    void* const name = NewCursorName();
    Cursor cursor;
  };
  using List = std::list<Named, HeapAllocator<Named>>;

  // Cursors in use gather at the front, so that abandoned ones do not slow the others' searches.
  bool MoveToFront(const void* name) noexcept {
    const auto found =
        std::find_if(m_list.begin(), m_list.end(), [name](const Named& named) { return named.name == name; });
    if (found == m_list.end()) {
      return false;
    }
    m_list.splice(m_list.begin(), m_list, found);
    return true;
  }

  Mutex m_mutex;
  List m_list;  // guarded by m_mutex; the cursors themselves are not
};

}  // namespace Qen
