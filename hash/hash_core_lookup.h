// Lookup in one generation. Included by hash_core.h.
#pragma once

#include "hash/hash_core.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::FindValueProcess(const Key& key) const -> Pointee* {
  const std::uint64_t home = HomeIndex(key);
  return FindInBucket(key, home, CellAt(home).flags.Load());
}

// `flags` was read before the walk. An insert that completed before this lookup began is here, linked and with its
// block, and if it went into the map then MAP_READY was set before: one reading of the flags is enough. A record
// without a block belongs to an insert that has not finished, and reads as absent.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::FindInBucket(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                          OnMiss onMiss) const -> Pointee* {
  Cell& homeCell = CellAt(home);
  const Key homeKey = homeCell.LoadKey();
  if (homeKey == key) {
    return BlockOf(homeCell.value);
  }
  if (homeKey == HCore::EMPTY_KEY) {
    return nullptr;  // an insert fills the home cell first: the bucket has no keys at all
  }
  std::uint64_t position = home;
  for (unsigned distance = homeCell.firstLink.Distance(); distance != 0;) {
    position += distance;
    Cell& cell = CellAt(position);
    if (cell.LoadKey() == key) {
      return BlockOf(cell.value);
    }
    distance = cell.nextLink.Distance();
  }
  if ((flags & HCore::MAP_READY) == 0) {
    return nullptr;  // a map still being built holds only the key of the insert that builds it
  }
  return MapFind(key, home, onMiss);
}

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::MapFind(const Key& key, std::uint64_t home, OnMiss onMiss) const
    -> Pointee* {
  Map* const map = FindMap(home);
  {
    std::shared_lock lock(map->mutex);
    const auto entry = map->entries.find(key);
    if (entry != map->entries.end()) {
      return BlockOf(entry->second);
    }
  }
  if (onMiss == OnMiss::LOG) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "key is not exist in map! bucketHead[%llu], tableSize[%llu]",
                   static_cast<unsigned long long>(home), m_tableSize);
  }
  return nullptr;
}

}  // namespace Qen
