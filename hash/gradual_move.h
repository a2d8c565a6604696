// Gradual growth: no insert pays for the move of a generation. Included by hash_core_migration.h.
//
// An insert that meets its generation full moves the bucket of its key and goes on in the next generation. By that
// alone a third of the buckets would still be in place when the next generation fills, since nobody offers their keys,
// and whoever adds the third generation would pay for all of them. So each insert of a new key also sweeps up a few
// buckets of the oldest generation, from a position that all share. With SWEEP_BUCKETS of them the oldest is empty when
// the second has taken an eighth of the keys that fill it.
#pragma once

#include <exception>
#include <new>

#include "hash/hash_core_migration.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashCheck(Core* core, const unsigned long long& bucket) {
  if (core->IsDeleted()) {
    return KAVO_SUCCESS;
  }
  const Step step = BeginGredualMigration(core, bucket);
  if (step == Step::OVERTIME) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashAcquire failed!");
  } else if (step != Step::DONE) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "BeginGredualMigration failed!");
  }
  return StatusOf(step);
}

// The spelling of this name stands in log lines, which hosts match on.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCoreMigration<Key, Value, KTraits, VTraits>::BeginGredualMigration(Core* core,
                                                                            const unsigned long long& bucket) -> Step {
  Core* const next = core->Next();
  const Step step = next == nullptr ? AddNewTableAndRehash(core, bucket) : RehashOneBucket(core, bucket, next);
  if (IsFailure(step)) {
    if (next == nullptr) {
      KAVO_LOG_ERROR_AS("NoNextTable", TABLE_LOG_UNIT, "AddNewTableAndRehash fail, ret[%d]", StatusOf(step));
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "NoNextTable failed, ret[%d]", StatusOf(step));
    } else {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Rehash failed, ret[%d]", StatusOf(step));
    }
  }
  return step;
}

// The bucket first; then, if the new generation makes three in use or more, the oldest.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCoreMigration<Key, Value, KTraits, VTraits>::AddNewTableAndRehash(Core* old, const unsigned long long& bucket)
    -> Step {
  Core* next = nullptr;
  try {
    if (BuildNext(old, next) != KAVO_SUCCESS) {
      return Step::FAILED;
    }
  } catch (const std::bad_alloc& e) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
    return Step::NO_MEMORY;
  }
  const Step step = RehashOneBucket(old, bucket, next);
  if (step != Step::DONE || HashTableGetSeqNum(next) < 3) {
    return step;
  }
  // Read once: the chain may move on meanwhile, and then the oldest is another one, or there is no third.
  // Acquire: as in SetNextHashCore.
  Core* const oldest = m_root.load(std::memory_order_acquire)->load(std::memory_order_acquire);
  Core* const middle = oldest->Next();
  Core* const third = middle == nullptr ? nullptr : middle->Next();
  return third == nullptr || RehashRemainBucket(oldest, third) == KAVO_SUCCESS ? Step::DONE : Step::FAILED;
}

template <class Key, class Value, class KTraits, class VTraits>
auto HashCoreMigration<Key, Value, KTraits, VTraits>::RehashOneBucket(Core* old, const unsigned long long& bucket,
                                                                      Core* next) -> Step {
  MovedCount moved{old};
  const Step step = MoveBucket(old, bucket, next, moved);
  if (IsFailure(step)) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashOneBucket fail, ret[%d]", StatusOf(step));
  }
  return step;
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
      // The flags first: most of what comes round again has moved, and a claim would write to its cache line.
      if ((oldest->CellAt(bucket).flags.Load() & HCore::BUCKET_MOVED) == 0 &&
          TryClaimBucket(oldest, bucket) == BucketClaim::OWNED &&
          MoveClaimedBucket(oldest, bucket, oldest->Next(), moved) != KAVO_SUCCESS) {
        break;
      }
    }
  } catch (const std::exception& e) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "lock failed, exception caught:%s", e.what());
  }
  RetireIfEmptied(oldest);
}

}  // namespace Qen
