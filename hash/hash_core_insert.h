// Insert-or-find in one generation. Included by hash_core.h, which states the invariants.
#pragma once

#include <exception>
#include <mutex>
#include <shared_mutex>

#include "hash/hash_core.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
int HashCore<Key, Value, KTraits, VTraits>::InsertOrFindProcess(const Key& key, Entry& entry, HashCore*& core) {
  HashCore* generation = this;
  for (;;) {
    core = generation;
    const std::uint64_t home = generation->HomeIndex(key);
    const std::uint8_t flags = generation->CellAt(home).flags.Load();
    Outcome outcome = Outcome::MOVING;
    if ((flags & HCore::BUCKET_MOVED) == 0) {
      outcome = generation->FindOrClaimCell(key, home, flags, Purpose::INSERT, entry);
      if (outcome == Outcome::IN_MAP) {
        outcome = generation->MapFindOrInsert(key, home, flags, entry);
      } else if (outcome == Outcome::NO_ROOM) {
        outcome = generation->IsOverMapThreshold() ? Outcome::FULL : generation->LinearAndMap(key, home, flags, entry);
      }
    }
    switch (outcome) {
      case Outcome::FOUND:
      case Outcome::BUSY:
        return ENTRY_FOUND;
      case Outcome::CLAIMED:
        return generation->IsOverMapThreshold() ? MUST_GROW : ENTRY_INSERTED;
      case Outcome::FULL:
        return MUST_GROW;
      case Outcome::NO_MEMORY:
        return KAVO_NO_MEMORY;
      case Outcome::MOVING:
        generation = generation->FindOrInsertCellInNext(home);
        if (generation == nullptr) {
          return KAVO_FAILED;
        }
        break;
      case Outcome::AGAIN:
        break;
      default:
        return KAVO_FAILED;
    }
  }
}

// Where to look next for a key whose bucket here is being moved or has moved: the next generation, or this one again
// if the move was given up and the generation is in use. Null after a line.
template <class Key, class Value, class KTraits, class VTraits>
HashCore<Key, Value, KTraits, VTraits>* HashCore<Key, Value, KTraits, VTraits>::FindOrInsertCellInNext(
    std::uint64_t home) {
  if (RehashAcquire(home) != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashAcquire failed!");
    return nullptr;
  }
  if ((CellAt(home).flags.Load() & HCore::BUCKET_MOVED) == 0 && !IsDeleted()) {
    return this;
  }
  HashCore* next = Next();
  if (next == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Current key has been rehashed but m_nextHashCore is nullptr!");
  }
  return next;
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
  if (purpose == Purpose::INSERT && IsOverMapThreshold()) {
    return Outcome::FULL;
  }
  return LinearSearch(key, home, flags, tail, link, entry);
}

// The probe behind the chain's end (I2). Positions are not reduced, so that distances stay differences.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::LinearSearch(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                          std::uint64_t tail, ChainLink* link, Entry& entry)
    -> Outcome {
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
      KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "key is already existed!");
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

// The record of a key that is stored already.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::Examine(std::uint64_t home, std::uint8_t flags, Value& record,
                                                     Entry& entry) -> Outcome {
  entry.block = BlockOf(record);
  if (entry.block != nullptr) {
    return Outcome::FOUND;  // final, moved or not
  }
  if ((flags & HCore::BUCKET_MOVING) != 0) {
    return Outcome::MOVING;
  }
  return record.TakeOver() ? ConfirmClaim(home, flags, record, entry) : Outcome::BUSY;
}

// I3. The caller owns `record` (FILLING); its key is claimed and linked.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::ConfirmClaim(std::uint64_t home, std::uint8_t flags, Value& record,
                                                          Entry& entry) -> Outcome {
  KAVO_TEST_POINT("HashCore.Linked");
  if (!CellAt(home).flags.ConfirmInPlace(flags) || IsDeleted()) {
    record.Withdraw();
    return Outcome::MOVING;
  }
  KAVO_TEST_POINT("HashCore.Confirmed");
  entry.record = &record;
  return Outcome::CLAIMED;
}

// No cell within reach: into the bucket's map, which this thread creates unless another does.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::LinearAndMap(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                          Entry& entry) -> Outcome {
  Outcome outcome = TryCreateMap(key, home, entry);
  if (outcome == Outcome::NO_MEMORY) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "Memory application failed.");
    return Outcome::FAILED;
  }
  return outcome == Outcome::IN_MAP ? MapFindOrInsert(key, home, flags, entry) : outcome;
}

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::TryCreateMap(const Key& key, std::uint64_t home, Entry& entry) -> Outcome {
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
    return Outcome::NO_MEMORY;
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
                                                             Entry& entry) -> Outcome {
  const Outcome ready = MapExistAcquire(home);
  if (ready != Outcome::IN_MAP) {
    if (ready == Outcome::FAILED) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MapExistAcquire failed, bucketHead[%llu], tableSize[%llu]",
                     static_cast<unsigned long long>(home), m_tableSize);
    }
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

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::MapExistAcquire(std::uint64_t home) const -> Outcome {
  Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
  const BucketFlags& flags = CellAt(home).flags;
  for (;;) {
    const std::uint8_t bits = flags.Load();
    if ((bits & HCore::MAP_READY) != 0) {
      return Outcome::IN_MAP;
    }
    if ((bits & HCore::MAP_BUILDING) == 0) {
      return Outcome::AGAIN;
    }
    if (IsDeleted()) {
      return Outcome::MOVING;  // I7
    }
    KAVO_TEST_POINT("HashCore.WaitForMap");
    if (!waiter.Pause()) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MapExistAcquire overtime");
      return Outcome::FAILED;
    }
  }
}

}  // namespace Qen
