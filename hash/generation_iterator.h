// The walk over the entries of one generation, in the order of its cells; at a cell that holds an overflow map, the map's
// keys in increasing order come before the cell's own key.
//
// CONTRACT. Correct while no thread inserts into the table, from the first step to the last; whatever the host does
// otherwise, nothing is read that was freed. One iterator is used by one thread at a time.
//
// WHICH ENTRIES ARE REPORTED. A moved entry has copies in several generations, and so has one whose move was given up half
// way. The one that counts is where a search would end: its bucket here has not MOVED, and its bucket in every older
// generation in use has. A cell's key is judged by its own home, which need not be that cell; a map's entry by the cell
// that holds the map. Keys without a block (an insert that has not finished, or could not get one) are passed over.
#pragma once

#include <cstdint>

#include "hash/hcore.h"
#include "platform/prefetch.h"

namespace Qen {

template <class Core, class Key, class Value>
class GenerationIterator {
 public:
  GenerationIterator() noexcept = default;

  // Stands at the first entry of `core`, or at its end. `oldest` is the oldest generation in use; `core` is that one or
  // follows it.
  void Position(const Core* oldest, const Core* core) {
    m_oldest = oldest;
    m_core = core;
    m_mask = core->AddressableSize() - 1;
    m_index = 0;
    m_inMap = false;
    m_key = static_cast<Key>(HCore::EMPTY_KEY);
    m_value = nullptr;
    Next();
  }

  // At the end it changes nothing.
  void Next() {
    if (m_inMap && StepInMap()) {
      return;
    }
    for (; m_index <= m_mask; ++m_index) {
      auto& cell = m_core->CellAt(m_index);
      const Key key = cell.LoadKey();
      if (key == HCore::EMPTY_KEY) {
        continue;
      }
      PrefetchForRead(m_core->CellAt(m_index + PREFETCH_CELLS).value.Get());
      if (!m_inMap && cell.LoadMap() != nullptr) {
        m_inMap = true;
        m_mapEntry = cell.LoadMap()->entries.begin();
        if (StandInMap()) {
          return;
        }
      }
      m_inMap = false;
      if (IsHere(key, m_core->HomeIndex(key)) && cell.value.Get() != nullptr) {
        m_key = key;
        m_value = &cell.value;
        ++m_index;
        return;
      }
    }
    m_index = m_mask + END_BEHIND_MASK;
    m_key = static_cast<Key>(HCore::EMPTY_KEY);
    m_value = nullptr;
  }

  bool AtEnd() const noexcept { return m_index == m_mask + END_BEHIND_MASK; }
  Key EntryKey() const noexcept { return m_key; }
  Value* EntryRecord() const noexcept { return m_value; }

 private:
  using MapEntry = typename decltype(Core::Map::entries)::iterator;

  static constexpr std::uint64_t END_BEHIND_MASK = 2;
  // Far enough for a block to arrive from memory, near enough to be there still.
  static constexpr std::uint64_t PREFETCH_CELLS = 24;

  bool StepInMap() {
    ++m_mapEntry;
    return StandInMap();
  }

  // The first entry from m_mapEntry on that counts. The map's cell is the one at m_index.
  bool StandInMap() {
    auto& entries = m_core->CellAt(m_index).LoadMap()->entries;
    for (; m_mapEntry != entries.end(); ++m_mapEntry) {
      if (IsHere(m_mapEntry->first, m_index) && m_mapEntry->second.Get() != nullptr) {
        m_key = m_mapEntry->first;
        m_value = &m_mapEntry->second;
        return true;
      }
    }
    return false;
  }

  bool IsHere(Key key, std::uint64_t bucket) const noexcept {
    if (HasMoved(*m_core, bucket)) {
      return false;
    }
    for (const Core* older = m_oldest; older != m_core; older = older->Next()) {
      if (!HasMoved(*older, older->HomeIndex(key))) {
        return false;
      }
    }
    return true;
  }
  static bool HasMoved(const Core& core, std::uint64_t bucket) noexcept {
    return (core.CellAt(bucket).flags.Load() & HCore::BUCKET_MOVED) != 0;
  }

  const Core* m_oldest = nullptr;
  const Core* m_core = nullptr;
  Key m_key = static_cast<Key>(HCore::EMPTY_KEY);
  Value* m_value = nullptr;
  // The next cell to look at, or the one whose map is being walked; m_mask + 2 at the end.
  std::uint64_t m_index = END_BEHIND_MASK;
  std::uint64_t m_mask = 0;
  MapEntry m_mapEntry{};
  bool m_inMap = false;
};

}  // namespace Qen
