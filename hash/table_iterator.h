// The walk over a table: its generations in use, from the current one to the end of the chain, one after the other.
// Generations that give no entry are passed over. Each entry is reported once (see generation_iterator.h). While it
// exists, no cells of these generations are given back.
#pragma once

#include "hash/generation_iterator.h"

namespace Qen {

template <class Table, class Core, class Key, class Value>
class TableIterator {
 public:
  // Stands at the table's first entry, or at its end.
  explicit TableIterator(Table& table) noexcept : m_table(table), m_oldest(table.BeginWalk()), m_core(m_oldest) {
    m_it.Position(m_oldest, m_core, NoHint());
    PassEmptyGenerations(NoHint());
  }
  ~TableIterator() { m_table.EndWalk(); }
  TableIterator(const TableIterator&) = delete;
  TableIterator& operator=(const TableIterator&) = delete;

  bool AtEnd() const noexcept { return m_it.AtEnd(); }
  Key EntryKey() const noexcept { return m_it.EntryKey(); }
  auto* EntryBlock() const noexcept { return m_it.EntryBlock(); }

  // At the end it changes nothing, unless an insert has appended a generation meanwhile.
  template <class Hint = NoHint>
  void Next(const Hint& hint = Hint()) noexcept {
    m_it.Next(hint);
    PassEmptyGenerations(hint);
  }

 private:
  template <class Hint>
  void PassEmptyGenerations(const Hint& hint) noexcept {
    while (m_it.AtEnd()) {
      const Core* next = m_core->Next();
      if (next == nullptr) {
        return;
      }
      m_core = next;
      m_it.Position(m_oldest, m_core, hint);
    }
  }

  Table& m_table;
  const Core* m_oldest;
  const Core* m_core;
  GenerationIterator<Core, Key, Value> m_it;
};

}  // namespace Qen
