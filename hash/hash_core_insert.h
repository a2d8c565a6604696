// Insert-or-find in one generation. Included by hash_core.h, which states the invariants.
#pragma once

#include <exception>
#include <mutex>
#include <shared_mutex>

#include "hash/hash_core.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::Search(const Key& key, Purpose purpose, HashCore*& core, Entry& entry)
    -> Outcome {
  for (;;) {
    const std::uint64_t home = core->HomeIndex(key);
    const std::uint8_t flags = core->CellAt(home).flags.Load();
    Outcome outcome = Outcome::MOVING;
    if ((flags & HCore::BUCKET_MOVED) == 0) {
      outcome = core->FindOrClaimCell(key, home, flags, purpose, entry);
      if (outcome == Outcome::NO_ROOM) {
        outcome = core->MustGrowFirst(purpose) ? Outcome::FULL : core->LinearAndMap(key, home, purpose, entry);
      }
      if (outcome == Outcome::IN_MAP) {
        outcome = core->MapFindOrInsert(key, home, flags, purpose, entry);
      }
    }
    if (outcome == Outcome::MOVING) {
      HashCore* const next = core->FindOrInsertCellInNext(home, purpose);
      if (next == nullptr) {
        return Outcome::FAILED;
      }
      core = next;
    } else if (outcome != Outcome::AGAIN) {
      return outcome;
    }
  }
}

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::FindOrClaimCell(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                             Purpose purpose, Entry& entry) -> Outcome {
  const bool moving = (flags & HCore::BUCKET_MOVING) != 0;
  Cell& homeCell = CellAt(home);
  Key homeKey = homeCell.LoadKey();
  if (homeKey == HCore::EMPTY_KEY) {
    if (moving) {
      return Outcome::MOVING;
    }
    if (homeCell.ClaimKey(key, homeKey)) {
      return ConfirmClaim(home, flags, homeCell.value, entry);
    }
  }
  if (homeKey == key) {
    return Examine(home, flags, homeCell.value, entry);
  }
  std::uint64_t tail = home;
  ChainLink* link = &homeCell.firstLink;
  while (const unsigned distance = link->Distance()) {
    tail += distance;
    Cell& cell = CellAt(tail);
    if (cell.LoadKey() == key) {
      return Examine(home, flags, cell.value, entry);
    }
    link = &cell.nextLink;
  }
  KAVO_TEST_POINT("HashCore.Walked");
  if (HasMapBits(flags)) {  // as read before the walk (I4)
    return Outcome::IN_MAP;
  }
  if (moving) {
    return Outcome::MOVING;
  }
  if (MustGrowFirst(purpose)) {
    return Outcome::FULL;
  }
  return LinearSearch(key, home, flags, purpose, tail, link, entry);
}

// The probe behind the chain's end (I2). Positions are not reduced, so that distances stay differences.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::LinearSearch(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                          Purpose purpose, std::uint64_t tail, ChainLink* link,
                                                          Entry& entry) -> Outcome {
  const std::uint64_t reach = m_linearSearchLen < m_mask ? m_linearSearchLen : m_mask;
  for (std::uint64_t position = tail + 1; position <= tail + reach; ++position) {
    if (position > m_mask && (position & m_mask) >= home) {
      break;  // wrapped past the end of the array and back at the home cell
    }
    Cell& cell = CellAt(position);
    Key cellKey = cell.LoadKey();
    if (cellKey == HCore::EMPTY_KEY && cell.ClaimKey(key, cellKey)) {
      KAVO_TEST_POINT("HashCore.Claimed");
      link->Set(position - tail);
      return ConfirmClaim(home, flags, cell.value, entry);
    }
    if (cellKey == key) {
      if (purpose == Purpose::INSERT) {  // a mover logs it wherever it finds the key
        KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "key is already existed!");
      }
      link->Set(position - tail);  // its owner may not have come to it yet
      return Examine(home, flags, cell.value, entry);
    }
    if (IsSameBucket(cellKey, key)) {
      link->Set(position - tail);
      link = &cell.nextLink;
      tail = position;
    }
  }
  return Outcome::NO_ROOM;
}

// No cell within reach: creates the bucket's map with `key` as its first entry. IN_MAP: another thread does, or did.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::LinearAndMap(const Key& key, std::uint64_t home, Purpose purpose,
                                                          Entry& entry) -> Outcome {
  Cell& homeCell = CellAt(home);
  std::uint8_t observed = homeCell.flags.Load();
  if (!homeCell.flags.TryBeginMap(observed)) {
    return HasMapBits(observed) ? Outcome::IN_MAP : Outcome::MOVING;
  }
  KAVO_TEST_POINT("HashCore.MapBegun");
  if (IsDeleted()) {
    homeCell.flags.WithdrawMap();
    return Outcome::MOVING;
  }
  HeapPtr<Map> map;
  Value* record = nullptr;
  try {
    map = MakeHeapPtr<Map>(home, m_mapBytes);
    record = &map->entries.try_emplace(key).first->second;
  } catch (const std::exception&) {
    homeCell.flags.WithdrawMap();  // nobody waits for this map any more, and the next insert may create it
    KAVO_LOG_EVENT_AS(purpose == Purpose::INSERT ? __func__ : "RehashMapInsert", TABLE_LOG_UNIT,
                      "Memory application failed.");
    return Outcome::FAILED;
  }
  m_maps.Add(map.release());
  m_mapBytes.fetch_add(sizeof(Map), std::memory_order_relaxed);  // a statistic
  m_mapNum.fetch_add(1, std::memory_order_relaxed);              // see the field
  KAVO_TEST_POINT("HashCore.MapBuilt");
  homeCell.flags.PublishMap();
  // The creation was decided by the flags, and a mover that came after waits for it: the claim needs no confirmation.
  entry.record = record;
  return Outcome::CLAIMED;
}

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::MapFindOrInsert(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                             Purpose purpose, Entry& entry) -> Outcome {
  const Outcome ready = MapExistAcquire(home);
  if (ready == Outcome::FAILED) {
    if (purpose == Purpose::INSERT) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MapExistAcquire failed, bucketHead[%llu], tableSize[%llu]",
                     static_cast<unsigned long long>(home), m_tableSize);
    } else {
      KAVO_LOG_ERROR_AS("RehashMapInsert", TABLE_LOG_UNIT, "MapExistAcquire failed, mapIndex[%llu], tableSize[%llu]",
                        static_cast<unsigned long long>(home), m_tableSize);
    }
  }
  if (ready != Outcome::IN_MAP) {
    return ready;
  }
  Cell& homeCell = CellAt(home);
  Map& map = *FindMap(home);
  Value* record = nullptr;
  {
    std::shared_lock lock(map.mutex);
    const auto place = map.entries.find(key);
    record = place == map.entries.end() ? nullptr : &place->second;
  }
  if (record != nullptr) {
    return Examine(home, flags, *record, entry);
  }
  if ((flags & HCore::BUCKET_MOVING) != 0) {
    return Outcome::MOVING;
  }
  try {
    KAVO_TEST_POINT("HashCore.MapEntering");
    std::unique_lock lock(map.mutex);
    // I6: a mover sets MOVING and then takes this lock once.
    if ((homeCell.flags.Load() & (HCore::BUCKET_MOVING | HCore::BUCKET_MOVED)) != 0 || IsDeleted()) {
      return Outcome::MOVING;
    }
    const auto [place, isNew] = map.entries.try_emplace(key);
    record = &place->second;
    if (isNew) {
      entry.record = record;
      return Outcome::CLAIMED;
    }
  } catch (const std::bad_alloc& e) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
    return Outcome::NO_MEMORY;
  }
  return Examine(home, flags, *record, entry);
}

}  // namespace Qen
