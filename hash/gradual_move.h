// Gradual growth: no insert pays for the move of a generation. Included by hash_core_migration.h.
//
// An insert that meets its generation full moves the bucket of its key and goes on in the next generation. By that
// alone a third of the buckets would still be in place when the next generation fills, since nobody offers their keys,
// and whoever adds the third generation would pay for all of them. So each insert of a new key also sweeps up a few
// buckets of the oldest generation, from a position that all share. With SWEEP_BUCKETS of them the oldest is empty when
// the second has taken an eighth of the keys that fill it.
#pragma once

#include <exception>

#include "hash/hash_core_migration.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashOneBucket(Core* old, const unsigned long long& bucket,
                                                                     Core* next, bool& overtime) {
  MovedCount moved{old};
  const int ret = MoveBucket(old, bucket, next, moved, overtime);
  if (ret != KAVO_SUCCESS && !overtime) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashOneBucket fail, ret[%d]", ret);
  }
  return ret;
}

// `core` is full, and an insert has met it in `bucket`: moves that bucket, and has a next generation built if there is
// none. The wait for another mover has a line of its own.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashCheck(Core* core, const unsigned long long& bucket) {
  if (core->IsDeleted()) {
    return KAVO_SUCCESS;
  }
  bool overtime = false;
  const int ret = BeginGredualMigration(core, bucket, overtime);
  if (overtime) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashAcquire failed!");
  } else if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "BeginGredualMigration failed!");
  }
  return ret;
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::BeginGredualMigration(Core* core, const unsigned long long& bucket,
                                                                           bool& overtime) {
  Core* const next = core->Next();
  if (next == nullptr) {
    const int ret = NoNextTable(core, bucket, overtime);
    if (ret != KAVO_SUCCESS && !overtime) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "NoNextTable failed, ret[%d]", ret);
    }
    return ret;
  }
  const int ret = RehashOneBucket(core, bucket, next, overtime);
  if (ret != KAVO_SUCCESS && !overtime) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Rehash failed, ret[%d]", ret);
  }
  return ret;
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::NoNextTable(Core* core, const unsigned long long& bucket,
                                                                 bool& overtime) {
  const int ret = AddNewTableAndRehash(core, bucket, overtime);
  if (ret != KAVO_SUCCESS && !overtime) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "AddNewTableAndRehash fail, ret[%d]", ret);
  }
  return ret;
}

// Builds the next generation, or waits while another thread does.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::AddNewTableAndRehash(Core* old, const unsigned long long& bucket,
                                                                          bool& overtime) {
  Core* next = nullptr;
  const int ret = MakeNewTable(old, next);
  return ret == KAVO_SUCCESS ? SelectRehashMode(old, next, bucket, overtime) : ret;
}

// The caller has just got `next`. Its bucket first; then, if that makes three generations in use or more, the oldest.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::SelectRehashMode(Core* old, Core* next,
                                                                      const unsigned long long& bucket,
                                                                      bool& overtime) {
  const int ret = RehashOneBucket(old, bucket, next, overtime);
  if (ret != KAVO_SUCCESS || HashTableGetSeqNum(next) < 3) {
    return ret;
  }
  // Read once: the chain may move on meanwhile, and then the oldest is another one, or there is no third.
  // Acquire: as in SetNextHashCore.
  Core* const oldest = m_root.load(std::memory_order_acquire)->load(std::memory_order_acquire);
  Core* const middle = oldest->Next();
  Core* const third = middle == nullptr ? nullptr : middle->Next();
  return third == nullptr ? KAVO_SUCCESS : RehashRemainBucket(oldest, third);
}

// Skips what others are moving or have moved: those are not this thread's business, and a position that is skipped
// comes round again until the generation is emptied. The copying itself may wait for an insert into the bucket.
template <class Key, class Value, class KTraits, class VTraits>
void HashCoreMigration<Key, Value, KTraits, VTraits>::Sweep(Core* oldest) noexcept {
  constexpr std::uint64_t SWEEP_BUCKETS = 8;
  try {
    MovedCount moved{oldest};
    const std::uint64_t first = oldest->TakeSweepPosition(SWEEP_BUCKETS);
    for (std::uint64_t i = 0; i < SWEEP_BUCKETS; ++i) {
      const unsigned long long bucket = (first + i) & (oldest->AddressableSize() - 1);
      // The flags first: most of what comes round again has moved, and a claim would write to its line.
      if ((oldest->CellAt(bucket).flags.Load() & HCore::BUCKET_MOVED) == 0 &&
          TryClaimBucket(oldest, bucket) == BucketClaim::OWNED &&
          MoveClaimedBucket(oldest, bucket, oldest->Next(), moved) != KAVO_SUCCESS) {
        break;
      }
    }
  } catch (const std::exception& e) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "lock failed, exception caught:%s", e.what());
  }
  LeaveIfEmptied(oldest);
}

}  // namespace Qen
