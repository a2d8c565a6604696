// The walk over the entries of one generation, in the order of its cells; at a cell that holds an overflow map, the
// map's keys in increasing order come before the cell's own key.
//
// CONTRACT. Each entry is reported once while no thread inserts into the table, from the first step to the last. An
// insert beside a walk breaks nothing: all that the walk reads stays until it ends, and a map is read under its lock,
// shared. No key is missed then whose insert completed before the walk began, but one that is moved meanwhile may be
// reported again. One iterator is used by one thread at a time. No step throws.
//
// WHICH ENTRIES ARE REPORTED. A moved entry has copies in several generations, and so has one whose move was given up
// half way. The one that counts is where a search would end: its bucket here has not MOVED, and its bucket in every
// older generation in use has. A cell's key is judged by its own home, which need not be that cell; a map's entry by
// the cell that holds the map. Keys without a value record (an insert that has not finished, or could not get a block)
// are passed over.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <shared_mutex>
#include <system_error>

#include "hash/hcore.h"
#include "platform/mutex.h"

namespace Qen {

struct NoHint {
  template <class Core>
  void operator()(const Core& /* core */, std::uint64_t /* index */) const noexcept {}
};

template <class Core, class Key, class Value>
class GenerationIterator {
 public:
  using Pointee = typename Value::Pointee;

  GenerationIterator() noexcept = default;

  // Stands at the first entry of `core`, or at its end. `oldest` is the oldest generation in use; `core` is that one or
  // follows it.
  template <class Hint>
  void Position(const Core* oldest, const Core* core, const Hint& hint) noexcept {
    m_oldest = oldest;
    m_core = core;
    m_cells = core->AddressableSize();
    m_nextGroup = 0;
    m_occupied = 0;
    m_inMap = false;
    Next(hint);
  }

  // At the end it changes nothing. `hint` is called with the generation and the index of each cell that the walk comes
  // to, and may ask for memory that will be wanted some cells later (NoHint does not).
  template <class Hint>
  void Next(const Hint& hint) noexcept {
    if (m_inMap && (StepInMap() || StandAtCell())) {
      return;
    }
    for (;;) {
      while (m_occupied == 0) {
        if (m_nextGroup >= m_cells) {
          m_key = static_cast<Key>(HCore::EMPTY_KEY);
          m_block = nullptr;
          return;
        }
        ScanGroup(hint);
      }
      m_index = m_group + static_cast<unsigned>(std::countr_zero(m_occupied));
      m_occupied &= m_occupied - 1;
      if (((m_core->CellAt(m_index).flags.Load() & HCore::MAP_READY) != 0 && EnterMap()) || StandAtCell()) {
        return;
      }
    }
  }

  bool AtEnd() const noexcept { return m_block == nullptr; }
  Key EntryKey() const noexcept { return m_key; }
  Pointee* EntryBlock() const noexcept { return m_block; }

 private:
  using Map = typename Core::Map;
  using MapEntry = typename decltype(Map::entries)::iterator;

  // Cells are looked at in groups, for keys only and without a branch on what is found: whether the next cell holds a
  // key is anybody's guess, and a wrong guess costs the processor as much as ten cells. Empty cells have no map either:
  // a map comes into being when all cells from its bucket's on are taken.
  static constexpr std::uint64_t GROUP_CELLS = 16;

  template <class Hint>
  void ScanGroup(const Hint& hint) noexcept {
    const Core& core = *m_core;
    const std::uint64_t first = m_nextGroup;
    const std::uint64_t end = std::min(first + GROUP_CELLS, m_cells);
    unsigned occupied = 0;
    for (std::uint64_t index = first; index < end; ++index) {
      hint(core, index);
      occupied |= static_cast<unsigned>(core.CellAt(index).LoadKey() != HCore::EMPTY_KEY) << (index - first);
    }
    m_occupied = occupied;
    m_group = first;
    m_nextGroup = end;
  }

  // The map of the cell at m_index. Its entries stay where they are while others enter, so m_mapEntry outlives the
  // lock.
  Map& CurrentMap() const noexcept { return *m_core->FindMap(m_index); }

  // Where the lock reports an error it is done without: while nobody inserts, as the contract asks, nobody changes a
  // map.
  static std::shared_lock<SharedMutex> Lock(Map& map) noexcept {
    try {
      return std::shared_lock(map.mutex);
    } catch (const std::system_error&) {
      return {};
    }
  }

  bool EnterMap() noexcept {
    Map& map = CurrentMap();
    const auto lock = Lock(map);
    m_inMap = true;
    m_mapEntry = map.entries.begin();
    return StandInMap(map);
  }
  bool StepInMap() noexcept {
    Map& map = CurrentMap();
    const auto lock = Lock(map);
    ++m_mapEntry;
    return StandInMap(map);
  }

  // Stands at the first entry from m_mapEntry on that counts. False, and out of the map, when there is none.
  bool StandInMap(Map& map) noexcept {
    for (; m_mapEntry != map.entries.end(); ++m_mapEntry) {
      if (IsHere(m_mapEntry->first, m_index) && StandAt(m_mapEntry->first, m_mapEntry->second)) {
        return true;
      }
    }
    m_inMap = false;
    return false;
  }

  // False when the key of the cell at m_index does not count.
  bool StandAtCell() noexcept {
    const Core& core = *m_core;
    auto& cell = core.CellAt(m_index);
    const Key key = cell.LoadKey();
    return IsHere(key, core.HomeIndex(key)) && StandAt(key, cell.value);
  }

  // False for a record without a block.
  bool StandAt(Key key, const Value& record) noexcept {
    m_block = m_core->BlockOf(record);
    m_key = m_block == nullptr ? static_cast<Key>(HCore::EMPTY_KEY) : key;
    return m_block != nullptr;
  }

  bool IsHere(Key key, std::uint64_t bucket) const noexcept {
    const Core* const core = m_core;
    if (HasMoved(*core, bucket)) {
      return false;
    }
    for (const Core* older = m_oldest; older != core; older = older->Next()) {
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
  Pointee* m_block = nullptr;  // null at the end
  std::uint64_t m_cells = 0;
  std::uint64_t m_group = 0;  // the cells from here to m_nextGroup were looked at
  std::uint64_t m_nextGroup = 0;
  unsigned m_occupied = 0;    // those of them that hold keys, as bits, and were not walked yet
  std::uint64_t m_index = 0;  // the cell where the walk stands, or whose map it is in
  MapEntry m_mapEntry{};
  bool m_inMap = false;
};

}  // namespace Qen
