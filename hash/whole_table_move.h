// The move of a whole generation, shared out in chunks among all threads that meet it full, or that find it to be the
// oldest of three. Included by hash_core_migration.h.
//
// Every index of a generation is brought to MOVED, those with an empty or a stolen home cell too: an insert that claims
// such a cell late must find the flag.
#pragma once

#include "hash/hash_core_migration.h"
#include "platform/on_exit.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::BeginWholeTableMigration(Core* core) {
  if (core->IsDeleted()) {
    KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "whole table has been rehashed! return and insert key to new table");
    return KAVO_SUCCESS;
  }
  Core* next = nullptr;
  const int ret = MakeNewTable(core, next);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MakeNewTable failed! ret[%d]", ret);
    return ret;
  }
  const Step step = MoveAndRetire(core, next, __func__);
  if (step == Step::OVERTIME) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "rehashNum.load(std::memory_order_relaxed) != 0 overtime");
  }
  while (step == Step::DONE && GiveBackSome()) {  // little, beside the move
  }
  return StatusOf(step);
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashRemainBucket(Core* src, Core* dst) {
  if (HashTableGetSeqNum(src) != 1) {
    return KAVO_SUCCESS;  // completed and retired by others
  }
  if (!src->IsEmptied()) {
    m_backstopCompletions.fetch_add(1, std::memory_order_relaxed);  // a statistic
  }
  const Step step = MoveAndRetire(src, dst, __func__);
  if (step == Step::OVERTIME) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "src->GetRehashNum() != 0 overtime");
  }
  return StatusOf(step);
}

// `caller` is whose name a failure is logged under; OVERTIME is the caller's to log.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCoreMigration<Key, Value, KTraits, VTraits>::MoveAndRetire(Core* src, Core* dst, const char* caller) -> Step {
  const Step step = MoveTogether(src, dst);
  if (IsFailure(step)) {
    KAVO_LOG_ERROR_AS(caller, TABLE_LOG_UNIT, "MoveOldEntryToNewTable failed!, ret[%d]", StatusOf(step));
  }
  if (step != Step::DONE) {
    return step;
  }
  const int ret = DeleteOldTable(src);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR_AS(caller, TABLE_LOG_UNIT, "DeleteOldTable failed! ret[%d]", ret);
    return Step::FAILED;
  }
  return Step::DONE;
}

// Moves what this thread can claim of `src`, and waits for what others have claimed. Whoever waits for the end looks
// for claimable chunks at every turn, so a chunk that was given back after a failure is taken up by somebody who needs
// it, and nobody waits for one that nobody will move.
template <class Key, class Value, class KTraits, class VTraits>
auto HashCoreMigration<Key, Value, KTraits, VTraits>::MoveTogether(Core* src, Core* dst) -> Step {
  src->AddRehashNum();
  const OnExit leave([src]() noexcept { src->SubRehashNum(); });
  KAVO_TEST_POINT("Mover.Joined");
  Waiter waiter(HCore::GENERATION_WAIT_INTERVAL_US, HCore::MAX_GENERATION_WAIT_TIME);
  for (;;) {
    if (MoveOldEntryToNewTable(src, dst) != KAVO_SUCCESS) {
      return Step::FAILED;
    }
    if (src->IsEmptied()) {
      return Step::DONE;
    }
    KAVO_TEST_POINT("Mover.WaitForOthers");
    if (!waiter.Pause()) {
      return Step::OVERTIME;
    }
  }
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::MoveOldEntryToNewTable(Core* src, Core* dst) {
  const unsigned long long size = src->ChunkSize();
  for (unsigned long long first = 0; first < src->AddressableSize(); first += size) {
    if (src->CellAt(first).moveClaim.TryTake()) {
      if (src->IsDeleted()) {
        return KAVO_SUCCESS;  // HashCore, I7: all of it was moved
      }
      const int ret = MoveChunk(src, dst, first, first + size);
      if (ret != KAVO_SUCCESS) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "move failed! ret[%d]", ret);
        return ret;
      }
    }
  }
  return KAVO_SUCCESS;
}

// The caller has claimed the chunk [first, last).
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::MoveChunk(Core* src, Core* dst, unsigned long long first,
                                                               unsigned long long last) {
  ChunkClaim& claim = src->CellAt(first).moveClaim;
  OnExit giveBack([&claim]() noexcept { claim.GiveBack(); });
  MovedCount moved{src};
  for (unsigned long long bucket = first; bucket < last; ++bucket) {
    const Step step = MoveBucket(src, bucket, dst, moved);
    if (IsFailure(step)) {
      KAVO_LOG_ERROR_AS("StartMove", TABLE_LOG_UNIT, "RehashInsert failed! ret[%d]", StatusOf(step));
    }
    if (step != Step::DONE) {
      return StatusOf(step);
    }
  }
  giveBack.Dismiss();
  claim.Finish();
  return KAVO_SUCCESS;
}

}  // namespace Qen
