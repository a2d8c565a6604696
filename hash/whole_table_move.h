// The move of a whole generation, shared out in chunks among all threads that meet it full. Included by
// hash_core_migration.h.
#pragma once

#include "hash/hash_core_migration.h"

namespace Qen {

// Moves one bucket, whoever has it: returns when MOVED is set. Every index of a generation is brought to MOVED, those
// with an empty or a stolen home cell too: an insert that claims such a cell late must find the flag.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::StartMove(Core* src, Core* dst, const unsigned long long& bucket) {
  BucketFlags& flags = src->CellAt(bucket).flags;
  for (;;) {
    const std::uint8_t before = flags.TryBeginMove();
    if ((before & HCore::BUCKET_MOVED) != 0) {
      return KAVO_SUCCESS;
    }
    if ((before & HCore::BUCKET_MOVING) == 0) {
      break;
    }
    const int ret = src->RehashAcquire(bucket);
    if (ret != KAVO_SUCCESS) {
      return ret;
    }
  }
  struct Ownership {
    explicit Ownership(BucketFlags& owned) noexcept : m_owned(owned) {}
    ~Ownership() {
      if (!m_moved) {
        m_owned.AbandonMove();  // also when a lock throws
      }
    }
    Ownership(const Ownership&) = delete;
    Ownership& operator=(const Ownership&) = delete;
    BucketFlags& m_owned;
    bool m_moved = false;
  } ownership(flags);
  KAVO_TEST_POINT("Mover.Marked");
  const int ret = RehashInsert(src, bucket, dst);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashInsert failed! ret[%d]", ret);
    return ret;
  }
  KAVO_TEST_POINT("Mover.Copied");
  flags.FinishMove();
  ownership.m_moved = true;
  return KAVO_SUCCESS;
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::MoveOldEntryToNewTable(Core* src, Core* dst) {
  const unsigned long long size = src->ChunkSize();
  for (unsigned long long first = 0; first < src->AddressableSize(); first += size) {
    if (src->CellAt(first).moveClaim.TryTake()) {
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
  struct Claim {
    explicit Claim(ChunkClaim& claim) noexcept : m_claim(claim) {}
    ~Claim() {
      if (!m_finished) {
        m_claim.GiveBack();
      }
    }
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    ChunkClaim& m_claim;
    bool m_finished = false;
  } claim(src->CellAt(first).moveClaim);
  for (unsigned long long bucket = first; bucket < last; ++bucket) {
    const int ret = StartMove(src, dst, bucket);
    if (ret != KAVO_SUCCESS) {
      return ret;
    }
  }
  claim.m_claim.Finish();
  claim.m_finished = true;
  src->CountFinishedChunk();
  return KAVO_SUCCESS;
}

// Whoever waits for the end looks for claimable chunks at every turn, so a chunk that was given back after a failure is
// taken up by somebody who needs it, and nobody waits for one that nobody will move.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::BeginWholeTableMigration(Core* core) {
  if (core->IsDeleted()) {
    KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "whole table has been rehashed! return and insert key to new table");
    return KAVO_SUCCESS;
  }
  struct Helper {
    explicit Helper(Core* core) noexcept : m_core(core) { m_core->AddRehashNum(); }
    ~Helper() { m_core->SubRehashNum(); }
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;
    Core* m_core;
  } helper(core);
  Core* next = nullptr;
  int ret = MakeNewTable(core, next);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MakeNewTable failed! ret[%d]", ret);
    return ret;
  }
  KAVO_TEST_POINT("Mover.Joined");
  Waiter waiter(HCore::GENERATION_WAIT_INTERVAL_US, HCore::MAX_GENERATION_WAIT_TIME);
  for (;;) {
    ret = MoveOldEntryToNewTable(core, next);
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MoveOldEntryToNewTable failed!, ret[%d]", ret);
      return ret;
    }
    if (core->IsEmptied()) {
      break;
    }
    KAVO_TEST_POINT("Mover.WaitForOthers");
    if (!waiter.Pause()) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "rehashNum.load(std::memory_order_relaxed) != 0 overtime");
      return KAVO_FAILED;
    }
  }
  ret = DeleteOldTable(core);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "DeleteOldTable failed! ret[%d]", ret);
  }
  return ret;
}

}  // namespace Qen
