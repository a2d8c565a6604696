// Copying one bucket into a newer generation. Included by hash_core_migration.h.
#pragma once

#include <mutex>

#include "hash/hash_core_migration.h"
#include "platform/on_exit.h"

namespace Qen {

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
    if (!WaitForRecord(record)) {
      KAVO_LOG_ERROR_AS("MapValueAcquire", TABLE_LOG_UNIT, "MapValueAcquire overtime");
      return KAVO_FAILED;
    }
    if (CopyEntry(src, key, record, dst, entries, __func__) != KAVO_SUCCESS) {
      return KAVO_FAILED;
    }
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
      if (!WaitForRecord(cell->value)) {
        KAVO_LOG_ERROR_AS("PtrAcquire", TABLE_LOG_UNIT, "PtrAcquire overtime");
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "PtrAcquire failed!");
        return KAVO_FAILED;
      }
      if (CopyEntry(src, cell->LoadKey(), cell->value, dst, entries, __func__) != KAVO_SUCCESS) {
        return KAVO_FAILED;
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

// `record` is not FILLING. `caller` is whose name a failure is logged under.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::CopyEntry(Core* src, const Key& key, const Value& record,
                                                               Core* dst, unsigned long long& entries,
                                                               const char* caller) {
  if (record.State() != RecordState::ATTACHED) {
    return KAVO_SUCCESS;  // a withdrawn claim stays behind: whoever offers the key next starts in the next generation
  }
  if (RehashInsertEntry(dst, key, record) != KAVO_SUCCESS) {
    KAVO_LOG_ERROR_AS(caller, TABLE_LOG_UNIT, "RehashInsertEntry failed! src[%llu], dst[%llu]", src->TableSize(),
                      dst->TableSize());
    return KAVO_FAILED;
  }
  ++entries;
  return KAVO_SUCCESS;
}

// An insert's search, with the given block in place of a new one. It starts at the flags of `dst`, so a bucket that has
// moved on there is followed; the same block already there is success (an earlier, given up move).
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashInsertEntry(Core* dst, const Key& key, const Value& source) {
  Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
  Core* core = dst;
  for (;;) {
    Entry entry;
    switch (Core::Search(key, Core::Purpose::PLACE, core, entry)) {
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
      case Outcome::BUSY:
        if (!waiter.Pause()) {
          KAVO_LOG_ERROR(TABLE_LOG_UNIT, "PtrAcquire overtime");
          return KAVO_FAILED;
        }
        break;
      default:
        if (core != dst) {
          KAVO_LOG_ERROR_AS("DoubleRehashCheck", TABLE_LOG_UNIT, "RehashInsertEntry failed!");
        }
        return KAVO_FAILED;
    }
  }
}

}  // namespace Qen
