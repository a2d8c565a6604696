// What a table adapter owns: the hash table, sized for the entries that the table is expected to hold.
#pragma once

#include <exception>
#include <new>

#include "hash/hashtable.h"
#include "hash/table_iterator.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
class ConcurrentTable {
 public:
  using Table = Hashtable<Key, Value, KTraits, VTraits>;
  using iterator = TableIterator<Table, typename Table::Core, Key, Value>;

  // Entries expected of a table whose creator names none, and its cells.
  static constexpr unsigned long long DEFAULT_CAPACITY = 2'097'152;
  static constexpr unsigned long long DEFAULT_CELLS = 5'033'160;
  static constexpr unsigned long long MIN_CAPACITY = 8;
  static constexpr unsigned long long MIN_CELLS = 12;

  // 0 means the default. Throws std::bad_alloc, logged.
  ConcurrentTable(const unsigned long long& capacity, const BlockDirectory& blocks)
      : m_capacity(capacity == 0             ? DEFAULT_CAPACITY
                   : capacity < MIN_CAPACITY ? MIN_CAPACITY
                                             : capacity) {
    // 2.4 cells an entry, rounded up to a power of two by the generation.
    const unsigned long long cells = capacity == 0             ? DEFAULT_CELLS
                                     : capacity < MIN_CAPACITY ? MIN_CELLS
                                                               : capacity / 5 * 12;
    try {
      m_hashtable = MakeHeapPtr<Table>(cells, blocks);
    } catch (const std::exception& e) {
      KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
      throw std::bad_alloc();
    }
  }

  unsigned long long Capacity() const noexcept { return m_capacity; }
  Table& GetHashtable() const noexcept { return *m_hashtable; }

 private:
  unsigned long long m_capacity;
  HeapPtr<Table> m_hashtable;
};

}  // namespace Qen
