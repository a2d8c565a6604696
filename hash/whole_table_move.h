// The move of a whole generation, shared out in chunks among all threads that meet it full, or that find it to be the
// oldest of three. Included by hash_core_migration.h.
#pragma once

#include "hash/hash_core_migration.h"
#include "platform/on_exit.h"

namespace Qen {

// Every index of a generation is brought to MOVED, those with an empty or a stolen home cell too: an insert that claims
// such a cell late must find the flag.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::StartMove(Core* src, Core* dst, const unsigned long long& bucket,
                                                               MovedCount& moved) {
  bool overtime = false;
  const int ret = MoveBucket(src, bucket, dst, moved, overtime);
  if (ret != KAVO_SUCCESS && !overtime) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashInsert failed! ret[%d]", ret);
  }
  return ret;
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
    const int ret = StartMove(src, dst, bucket, moved);
    if (ret != KAVO_SUCCESS) {
      return ret;
    }
  }
  giveBack.Dismiss();
  claim.Finish();
  return KAVO_SUCCESS;
}

// Moves what this thread can claim of `src`, and waits for what others have claimed. Whoever waits for the end looks
// for claimable chunks at every turn, so a chunk that was given back after a failure is taken up by somebody who needs
// it, and nobody waits for one that nobody will move.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::MoveTogether(Core* src, Core* dst, bool& overtime) {
  src->AddRehashNum();
  const OnExit leave([src]() noexcept { src->SubRehashNum(); });
  KAVO_TEST_POINT("Mover.Joined");
  Waiter waiter(HCore::GENERATION_WAIT_INTERVAL_US, HCore::MAX_GENERATION_WAIT_TIME);
  for (;;) {
    const int ret = MoveOldEntryToNewTable(src, dst);
    if (ret != KAVO_SUCCESS || src->IsEmptied()) {
      return ret;
    }
    KAVO_TEST_POINT("Mover.WaitForOthers");
    if (!waiter.Pause()) {
      overtime = true;
      return KAVO_FAILED;
    }
  }
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::BeginWholeTableMigration(Core* core) {
  if (core->IsDeleted()) {
    KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "whole table has been rehashed! return and insert key to new table");
    return KAVO_SUCCESS;
  }
  Core* next = nullptr;
  int ret = MakeNewTable(core, next);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MakeNewTable failed! ret[%d]", ret);
    return ret;
  }
  bool overtime = false;
  ret = MoveTogether(core, next, overtime);
  if (overtime) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "rehashNum.load(std::memory_order_relaxed) != 0 overtime");
    return ret;
  }
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MoveOldEntryToNewTable failed!, ret[%d]", ret);
    return ret;
  }
  ret = DeleteOldTable(core);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "DeleteOldTable failed! ret[%d]", ret);
    return ret;
  }
  while (GiveBackSome()) {  // little, beside the move
  }
  return KAVO_SUCCESS;
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::RehashRemainBucket(Core* src, Core* dst) {
  if (HashTableGetSeqNum(src) != 1) {
    return KAVO_SUCCESS;  // completed and left by others
  }
  if (!src->IsEmptied()) {
    m_backstopCompletions.fetch_add(1, std::memory_order_relaxed);  // a statistic
  }
  bool overtime = false;
  int ret = MoveTogether(src, dst, overtime);
  if (overtime) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "src->GetRehashNum() != 0 overtime");
    return ret;
  }
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MoveOldEntryToNewTable failed!, ret[%d]", ret);
    return ret;
  }
  ret = DeleteOldTable(src);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "DeleteOldTable failed! ret[%d]", ret);
  }
  return ret;
}

}  // namespace Qen
