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
    m_mask = core->AddressableSize() - 1;
    m_index = 0;
    m_inMap = false;
    m_key = static_cast<Key>(HCore::EMPTY_KEY);
    m_block = nullptr;
    Next(hint);
  }

  // At the end it changes nothing. `hint` is called with the generation and the index of each cell that the walk comes
  // to, and may ask for memory that will be wanted some cells later (NoHint does not).
  template <class Hint>
  void Next(const Hint& hint) noexcept {
    if (m_inMap && StepInMap()) {
      return;
    }
    for (; m_index <= m_mask; ++m_index) {
      hint(*m_core, m_index);
      auto& cell = m_core->CellAt(m_index);
      const Key key = cell.LoadKey();
      if (key == HCore::EMPTY_KEY) {
        continue;  // such a cell has no map either: a map comes into being when all cells from here on are taken
      }
      if (!m_inMap && cell.LoadMap() != nullptr && EnterMap()) {
        return;
      }
      m_inMap = false;
      if (IsHere(key, m_core->HomeIndex(key)) && StandAt(key, cell.value)) {
        ++m_index;
        return;
      }
    }
    m_index = m_mask + END_BEHIND_MASK;
    m_key = static_cast<Key>(HCore::EMPTY_KEY);
    m_block = nullptr;
  }

  bool AtEnd() const noexcept { return m_index == m_mask + END_BEHIND_MASK; }
  Key EntryKey() const noexcept { return m_key; }
  Pointee* EntryBlock() const noexcept { return m_block; }

 private:
  using Map = typename Core::Map;
  using MapEntry = typename decltype(Map::entries)::iterator;

  static constexpr std::uint64_t END_BEHIND_MASK = 2;

  // The map of the cell at m_index. Its entries stay where they are while others enter, so m_mapEntry outlives the
  // lock.
  Map& CurrentMap() const noexcept { return *m_core->CellAt(m_index).LoadMap(); }

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

  // Stands at the first entry from m_mapEntry on that counts. False, at the map's end, when there is none.
  bool StandInMap(Map& map) noexcept {
    for (; m_mapEntry != map.entries.end(); ++m_mapEntry) {
      if (IsHere(m_mapEntry->first, m_index) && StandAt(m_mapEntry->first, m_mapEntry->second)) {
        return true;
      }
    }
    return false;
  }

  // False for a record without a block.
  bool StandAt(Key key, const Value& record) noexcept {
    m_block = record.Get();
    m_key = m_block == nullptr ? static_cast<Key>(HCore::EMPTY_KEY) : key;
    return m_block != nullptr;
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
  Pointee* m_block = nullptr;
  // The next cell to look at, or the one whose map is being walked; m_mask + 2 at the end.
  std::uint64_t m_index = END_BEHIND_MASK;
  std::uint64_t m_mask = 0;
  MapEntry m_mapEntry{};
  bool m_inMap = false;
};

}  // namespace Qen
