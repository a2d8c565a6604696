// A walk over all entries of an embedding's tables, one table after the other: the base's exports, which give each key
// that was there when the walk began at least once, whatever is inserted meanwhile. Threads may share it: each takes
// some entries at a time.
#pragma once

#include <cstddef>
#include <exception>
#include <iterator>
#include <mutex>
#include <optional>
#include <span>

#include "embedding/key_tables.h"
#include "kavo.hpp"
#include "platform/mutex.h"

namespace Qen {

class TableWalk {
 public:
  // A table that is made later has no key that the walk must give.
  explicit TableWalk(const KeyTables& tables) noexcept : m_tables(tables), m_num(tables.Num()) {}

  // Fills `elements` and answers how many there are, 0 at the end. `sign` is to be set in their tags. Throws what
  // kavo::Entries throws, and the walk is of no use then.
  std::size_t Next(std::span<KavoHtBatchElement> elements, Tag& sign) {
    constexpr unsigned BATCH = 1024;
    const std::lock_guard lock(m_mutex);
    for (; m_table < m_num; ++m_table, m_entries.reset()) {
      if (!m_entries) {
        kavo::Entries& entries = m_entries.emplace(m_tables.Id(m_table), kavo::ExportMode::ALL, BATCH);
        m_next = kavo::Entries::Iterator(entries);  // at its end, should the next throw
        m_next = entries.begin();
      }
      std::size_t num = 0;
      for (; num < elements.size() && m_next != std::default_sentinel; ++m_next) {
        elements[num++] = *m_next;
      }
      if (num != 0) {
        sign = m_table == 0 ? 0 : SIGN;
        return num;
      }
    }
    return 0;
  }

  // Ends a walk in the middle of a table, whose retired memory stays as long as the walk. Nobody calls Next any more.
  void GiveUp() noexcept {
    try {
      while (m_entries && m_next != std::default_sentinel) {
        ++m_next;
      }
    } catch (const std::exception&) {  // has ended it
    }
  }

 private:
  const KeyTables& m_tables;
  const unsigned m_num;
  Mutex m_mutex;  // guards the rest
  unsigned m_table = 0;
  std::optional<kavo::Entries> m_entries;  // of this table, once it was begun
  kavo::Entries::Iterator m_next;
};

}  // namespace Qen
