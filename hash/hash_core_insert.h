// Insert-or-find in one generation. Included by hash_core.h, which states the invariants I1 to I6.
#pragma once

#include <exception>
#include <mutex>
#include <shared_mutex>

#include "hash/hash_core.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
int HashCore<Key, Value, KTraits, VTraits>::InsertOrFindProcess(const Key& key, Value*& valueRecord, HashCore*& core) {
  HashCore* generation = this;
  for (;;) {
    core = generation;
    const std::uint64_t home = generation->HomeIndex(key);
    const std::uint8_t flags = generation->CellAt(home).flags.Load();
    Outcome outcome = Outcome::MOVING;
    if ((flags & HCore::BUCKET_MOVED) == 0) {
      outcome = generation->FindOrClaimCell(key, home, flags, Purpose::INSERT, valueRecord);
      if (outcome == Outcome::IN_MAP) {
        outcome = generation->MapFindOrInsert(key, home, flags, valueRecord);
      } else if (outcome == Outcome::NO_ROOM) {
        outcome =
            generation->IsOverMapThreshold() ? Outcome::FULL : generation->LinearAndMap(key, home, flags, valueRecord);
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
// if the move was given up. Null after a line.
template <class Key, class Value, class KTraits, class VTraits>
HashCore<Key, Value, KTraits, VTraits>* HashCore<Key, Value, KTraits, VTraits>::FindOrInsertCellInNext(
    std::uint64_t home) {
  if (RehashAcquire(home) != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashAcquire failed!");
    return nullptr;
  }
  if ((CellAt(home).flags.Load() & HCore::BUCKET_MOVED) == 0) {
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
                                                             Purpose purpose, Value*& valueRecord) -> Outcome {
  const bool moving = (flags & HCore::BUCKET_MOVING) != 0;
  Cell& homeCell = CellAt(home);
  Key homeKey = homeCell.LoadKey();
  if (homeKey == HCore::EMPTY_KEY) {
    if (moving) {
      return Outcome::MOVING;
    }
    if (homeCell.ClaimKey(key, homeKey)) {
      return ConfirmClaim(home, flags, homeCell.value, valueRecord);
    }
  }
  if (homeKey == key) {
    return Examine(home, flags, homeCell.value, valueRecord);
  }
  std::uint64_t tail = home;
  ChainLink* link = &homeCell.firstLink;
  while (const unsigned distance = link->Distance()) {
    tail += distance;
    Cell& cell = CellAt(tail);
    if (cell.LoadKey() == key) {
      return Examine(home, flags, cell.value, valueRecord);
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
  return LinearSearch(key, home, flags, tail, link, valueRecord);
}

// The probe behind the chain's end (I2). Positions are not reduced, so that distances stay differences.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::LinearSearch(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                          std::uint64_t tail, ChainLink* link, Value*& valueRecord)
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
      return ConfirmClaim(home, flags, cell.value, valueRecord);
    }
    if (cellKey == key) {
      KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "key is already existed!");
      link->Set(position - tail);  // its owner may not have come to it yet
      return Examine(home, flags, cell.value, valueRecord);
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
                                                     Value*& valueRecord) -> Outcome {
  const RecordState state = record.State();
  if (state == RecordState::ATTACHED) {
    valueRecord = &record;  // final, moved or not
    return Outcome::FOUND;
  }
  if ((flags & HCore::BUCKET_MOVING) != 0) {
    return Outcome::MOVING;
  }
  if (state == RecordState::VACANT && record.TakeOver()) {
    return ConfirmClaim(home, flags, record, valueRecord);
  }
  valueRecord = &record;
  return Outcome::BUSY;
}

// I3. The caller owns `record` (FILLING); its key is claimed and linked.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::ConfirmClaim(std::uint64_t home, std::uint8_t flags, Value& record,
                                                          Value*& valueRecord) -> Outcome {
  KAVO_TEST_POINT("HashCore.Linked");
  if (!CellAt(home).flags.ConfirmInPlace(flags)) {
    record.Withdraw();
    return Outcome::MOVING;
  }
  KAVO_TEST_POINT("HashCore.Confirmed");
  valueRecord = &record;
  return Outcome::CLAIMED;
}

// No cell within reach: into the bucket's map, which this thread creates unless another does.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::LinearAndMap(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                          Value*& valueRecord) -> Outcome {
  Outcome outcome = TryCreateMap(key, home, valueRecord);
  if (outcome == Outcome::NO_MEMORY) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "Memory application failed.");
    return Outcome::FAILED;
  }
  return outcome == Outcome::IN_MAP ? MapFindOrInsert(key, home, flags, valueRecord) : outcome;
}

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::TryCreateMap(const Key& key, std::uint64_t home, Value*& valueRecord)
    -> Outcome {
  Cell& homeCell = CellAt(home);
  std::uint8_t observed = homeCell.flags.Load();
  if (!homeCell.flags.TryBeginMap(observed)) {
    return HasMapBits(observed) ? Outcome::IN_MAP : Outcome::MOVING;
  }
  KAVO_TEST_POINT("HashCore.MapBegun");
  HeapPtr<Map> map;
  Value* record = nullptr;
  try {
    map = MakeHeapPtr<Map>();
    record = &map->entries.try_emplace(key).first->second;
  } catch (const std::exception&) {
    homeCell.flags.WithdrawMap();  // nobody waits for this map any more, and the next insert may create it
    return Outcome::NO_MEMORY;
  }
  Map* published = map.release();
  OwnMap(published);
  homeCell.StoreMap(published);
  m_mapNum.fetch_add(1, std::memory_order_relaxed);  // see the field
  KAVO_TEST_POINT("HashCore.MapBuilt");
  homeCell.flags.PublishMap();
  // The creation was decided by the flags, and a mover that came after waits for it: the claim needs no confirmation.
  valueRecord = record;
  return Outcome::CLAIMED;
}

template <class Key, class Value, class KTraits, class VTraits>
auto HashCore<Key, Value, KTraits, VTraits>::MapFindOrInsert(const Key& key, std::uint64_t home, std::uint8_t flags,
                                                             Value*& valueRecord) -> Outcome {
  const Outcome ready = MapExistAcquire(home);
  if (ready != Outcome::IN_MAP) {
    if (ready == Outcome::FAILED) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MapExistAcquire failed, bucketHead[%llu], tableSize[%llu]",
                     static_cast<unsigned long long>(home), m_tableSize);
    }
    return ready;
  }
  Cell& homeCell = CellAt(home);
  Map& map = *homeCell.LoadMap();
  Value* record = nullptr;
  {
    std::shared_lock lock(map.mutex);
    const auto entry = map.entries.find(key);
    record = entry == map.entries.end() ? nullptr : &entry->second;
  }
  if (record != nullptr) {
    return Examine(home, flags, *record, valueRecord);
  }
  if ((flags & HCore::BUCKET_MOVING) != 0) {
    return Outcome::MOVING;
  }
  try {
    KAVO_TEST_POINT("HashCore.MapEntering");
    std::unique_lock lock(map.mutex);
    // I6: a mover sets MOVING and then takes this lock once.
    if ((homeCell.flags.Load() & (HCore::BUCKET_MOVING | HCore::BUCKET_MOVED)) != 0) {
      return Outcome::MOVING;
    }
    const auto [entry, isNew] = map.entries.try_emplace(key);
    if (isNew) {
      valueRecord = &entry->second;
      return Outcome::CLAIMED;
    }
    record = &entry->second;
  } catch (const std::bad_alloc& e) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
    return Outcome::NO_MEMORY;
  }
  return Examine(home, flags, *record, valueRecord);
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
    KAVO_TEST_POINT("HashCore.WaitForMap");
    if (!waiter.Pause()) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MapExistAcquire overtime");
      return Outcome::FAILED;
    }
  }
}

}  // namespace Qen
