// Copying one bucket into a newer generation. Included by hash_core_migration.h.
#pragma once

#include <mutex>

#include "hash/hash_core_migration.h"
#include "platform/on_exit.h"

namespace Qen {

// The cells first, then the map: the order in which a search looks.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashInsert(Core* src, const unsigned long long& bucket,
                                                                  Core* dst, unsigned long long& entries) {
  Cell& home = src->CellAt(bucket);
  if (home.LoadKey() == HCore::EMPTY_KEY) {
    return KAVO_SUCCESS;  // the home cell is filled first: an empty one means an empty bucket
  }
  if (RehashInsertBucket(src, bucket, dst, entries) != KAVO_SUCCESS) {
    return KAVO_FAILED;
  }
  if ((home.flags.Load() & (HCore::MAP_BUILDING | HCore::MAP_READY)) == 0) {
    return KAVO_SUCCESS;
  }
  const Outcome ready = src->MapExistAcquire(bucket);
  if (ready == Outcome::FAILED) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MapExistAcquire failed, mapIndex[%llu], tableSize[%llu]", bucket, src->TableSize());
    return KAVO_FAILED;
  }
  if (ready != Outcome::IN_MAP) {
    return KAVO_SUCCESS;  // its creation was withdrawn
  }
  auto& map = *src->FindMap(bucket);
  {
    // Whoever enters the map looks at the flags under this lock: once it was free after MOVING was set, nobody does
    // any more, and the walk needs no lock. Lookups are never held up by it.
    std::lock_guard lock(map.mutex);
  }
  for (auto& [key, record] : map.entries) {
    if (MapValueAcquire(record) != KAVO_SUCCESS) {
      return KAVO_FAILED;
    }
    if (record.State() != RecordState::ATTACHED) {
      continue;  // as in the chain
    }
    if (RehashInsertEntry(dst, key, record) != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashInsertEntry failed! src[%llu], dst[%llu]", src->TableSize(),
                     dst->TableSize());
      return KAVO_FAILED;
    }
    ++entries;
  }
  return KAVO_SUCCESS;
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashInsertBucket(Core* src, const unsigned long long& bucket,
                                                                        Core* dst, unsigned long long& entries) {
  // Links may be read ahead of the waits below: one that appears after MOVING was set leads to an unconfirmed claim.
  std::uint64_t position = bucket;
  Cell* cell = &src->CellAt(position);
  unsigned distance = cell->firstLink.Distance();
  bool isOfBucket = src->HomeIndex(cell->LoadKey()) == bucket;  // or another bucket's probe took the home cell
  for (;;) {
    if (isOfBucket) {
      if (PtrAcquire(cell->value) != KAVO_SUCCESS) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "PtrAcquire failed!");
        return KAVO_FAILED;
      }
      // A withdrawn claim (VACANT) stays behind: whoever offers the key next starts in the next generation.
      if (cell->value.State() == RecordState::ATTACHED) {
        if (RehashInsertEntry(dst, cell->LoadKey(), cell->value) != KAVO_SUCCESS) {
          KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashInsertEntry failed! src[%llu], dst[%llu]", src->TableSize(),
                         dst->TableSize());
          return KAVO_FAILED;
        }
        ++entries;
      }
    }
    if (distance == 0) {
      return KAVO_SUCCESS;
    }
    position += distance;
    cell = &src->CellAt(position);
    distance = cell->nextLink.Distance();
    isOfBucket = true;
  }
}

// Waits while an insert fills the record. The line is written by the caller, under its name.
template <class Key, class Value, class KTraits, class VTraits>
bool HashCoreMigration<Key, Value, KTraits, VTraits>::WaitForRecord(const Value& record) {
  Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
  while (record.State() == RecordState::FILLING) {
    KAVO_TEST_POINT("Mover.WaitForRecord");
    if (!waiter.Pause()) {
      return false;
    }
  }
  return true;
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::PtrAcquire(const Value& record) {
  if (WaitForRecord(record)) {
    return KAVO_SUCCESS;
  }
  KAVO_LOG_ERROR(TABLE_LOG_UNIT, "PtrAcquire overtime");
  return KAVO_FAILED;
}

// The same for a map entry.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::MapValueAcquire(const Value& record) {
  if (WaitForRecord(record)) {
    return KAVO_SUCCESS;
  }
  KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MapValueAcquire overtime");
  return KAVO_FAILED;
}

// The search and claim of an insert, with the given block in place of a new one. It starts at the flags of `dst`, so a
// bucket that has moved on there is followed; the same block already there is success (an earlier, given up move).
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashInsertEntry(Core* dst, const Key& key, const Value& source) {
  Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
  for (;;) {
    const std::uint64_t home = dst->HomeIndex(key);
    const std::uint8_t flags = dst->CellAt(home).flags.Load();
    Entry entry;
    Outcome outcome = Outcome::MOVING;
    if ((flags & HCore::BUCKET_MOVED) == 0) {
      outcome = dst->FindOrClaimCell(key, home, flags, Core::Purpose::PLACE, entry);
      if (outcome == Outcome::IN_MAP) {
        outcome = dst->MapFindOrInsert(key, home, flags, entry);
      } else if (outcome == Outcome::NO_ROOM) {
        outcome = RehashMapInsert(dst, key, home, flags, entry);
      }
    }
    switch (outcome) {
      case Outcome::CLAIMED:
        KAVO_TEST_POINT("Mover.Placing");
        entry.record->Attach(source.Number());
        return KAVO_SUCCESS;
      case Outcome::FOUND:
        KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "key is already existed!");
        if (entry.block != dst->BlockOf(source)) {  // cannot be (I5); the old entry stays and serves
          KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashInsertEntry failed!");
          return KAVO_FAILED;
        }
        return KAVO_SUCCESS;
      case Outcome::MOVING:
        if (DoubleRehashCheck(dst, home) != KAVO_SUCCESS) {
          KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashInsertEntry failed!");
          return KAVO_FAILED;
        }
        break;
      case Outcome::BUSY:
        if (!waiter.Pause()) {
          KAVO_LOG_ERROR(TABLE_LOG_UNIT, "PtrAcquire overtime");
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

// No cell within reach: creates the bucket's map with this key, or joins the one that another thread creates.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCoreMigration<Key, Value, KTraits, VTraits>::RehashMapInsert(Core* dst, const Key& key, std::uint64_t home,
                                                                      std::uint8_t flags, Entry& entry) -> Outcome {
  const Outcome outcome = dst->TryCreateMap(key, home, entry);
  if (outcome == Outcome::NO_MEMORY) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "Memory application failed.");
    return Outcome::FAILED;
  }
  return outcome == Outcome::IN_MAP ? dst->MapFindOrInsert(key, home, flags, entry) : outcome;
}

// The destination bucket is itself being moved, or has moved on: waits for the end of that move, and sets `dst` to the
// generation where the key belongs now.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::DoubleRehashCheck(Core*& dst, const unsigned long long& home) {
  if (dst->RehashAcquire(home) != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashAcquire failed! remainderIndex[%llu]", home);
    return KAVO_FAILED;
  }
  if ((dst->CellAt(home).flags.Load() & HCore::BUCKET_MOVED) != 0) {
    dst = dst->Next();  // C1: there is one
  }
  return KAVO_SUCCESS;
}

// Makes the caller the bucket's mover if nobody is and it has not moved. Waits for nobody.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCoreMigration<Key, Value, KTraits, VTraits>::TryClaimBucket(Core* core, const unsigned long long& bucket)
    -> BucketClaim {
  BucketFlags& flags = core->CellAt(bucket).flags;
  const std::uint8_t before = flags.TryBeginMove();
  if ((before & HCore::BUCKET_MOVED) != 0) {
    return BucketClaim::MOVED;
  }
  if ((before & HCore::BUCKET_MOVING) != 0) {
    return BucketClaim::BUSY;
  }
  if (core->IsDeleted()) {  // HashCore, I7
    flags.AbandonMove();
    return BucketClaim::MOVED;
  }
  return BucketClaim::OWNED;
}

// The same, but waits for another mover to end: never BUSY. FAILED after a line.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCoreMigration<Key, Value, KTraits, VTraits>::ClaimBucket(Core* core, const unsigned long long& bucket)
    -> BucketClaim {
  for (;;) {
    const BucketClaim claim = TryClaimBucket(core, bucket);
    if (claim != BucketClaim::BUSY) {
      return claim;
    }
    if (core->RehashAcquire(bucket) != KAVO_SUCCESS) {
      return BucketClaim::FAILED;
    }
    if (core->IsDeleted()) {
      return BucketClaim::MOVED;
    }
  }
}

// C5. The caller is the mover of `bucket` in `src`, which `middle` follows, and moves it to the generation after that.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::PassOverMiddle(Core* src, Core* middle,
                                                                    const unsigned long long& bucket) {
  MovedCount moved{middle};
  for (unsigned long long split = bucket; split < middle->AddressableSize(); split += src->TableSize()) {
    const BucketClaim claim = ClaimBucket(middle, split);
    if (claim == BucketClaim::FAILED) {
      return KAVO_FAILED;
    }
    if (claim == BucketClaim::OWNED) {
      middle->CellAt(split).flags.FinishMove();
      ++moved.buckets;
    }
  }
  return KAVO_SUCCESS;
}

// The caller is the bucket's mover, and is not any more after this: the bucket has moved, or is in place as before,
// also when a lock throws.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::MoveClaimedBucket(Core* src, const unsigned long long& bucket,
                                                                       Core* dst, MovedCount& moved) {
  BucketFlags& flags = src->CellAt(bucket).flags;
  OnExit abandon([&flags]() noexcept { flags.AbandonMove(); });
  KAVO_TEST_POINT("Mover.Marked");
  Core* const next = src->Next();
  if (dst != next) {
    const int ret = PassOverMiddle(src, next, bucket);
    if (ret != KAVO_SUCCESS) {
      return ret;
    }
  }
  unsigned long long entries = 0;
  const int ret = RehashInsert(src, bucket, dst, entries);
  if (ret != KAVO_SUCCESS) {
    return ret;
  }
  KAVO_TEST_POINT("Mover.Copied");
  abandon.Dismiss();
  flags.FinishMove();
  ++moved.buckets;
  moved.entries += entries;
  return KAVO_SUCCESS;
}

// Moves one bucket, whoever has it: returns when MOVED is set. `overtime`: another thread had it for too long.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::MoveBucket(Core* src, const unsigned long long& bucket, Core* dst,
                                                                MovedCount& moved, bool& overtime) {
  const BucketClaim claim = ClaimBucket(src, bucket);
  if (claim == BucketClaim::OWNED) {
    return MoveClaimedBucket(src, bucket, dst, moved);
  }
  overtime = claim == BucketClaim::FAILED;
  return overtime ? KAVO_FAILED : KAVO_SUCCESS;
}

}  // namespace Qen
