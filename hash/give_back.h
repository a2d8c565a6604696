// The memory of retired generations. Included by hash_core_migration.h.
//
// Nobody asks whether a thread is still inside a retired generation, because no answer that zero cells give is believed
// there (HashCore, I7): the common paths publish nothing, and pay one load of m_deleted where they answer "absent" or
// confirm a claim. Walks are the exception, for they read cells long after they have begun: they are counted, and the
// cells of a generation go back only when no walk is under way that may have begun in it.
//
// Overflow maps stay, since a late thread may hold the lock of one; there are few.
#pragma once

#include <mutex>

#include "hash/hash_core_migration.h"

namespace Qen {

// Gives one piece of memory back; true when there may be more. Never waits: another thread at it will do.
//
// A walk announces itself, then loads the current generation; this loads the count of walks after the current
// generation has passed the one in hand. Both are sequentially consistent, so a walk that is not counted here begins
// behind it.
template <class Key, class Value, class KTraits, class VTraits>
bool HashCoreMigration<Key, Value, KTraits, VTraits>::GiveBackSome() noexcept {
  const std::unique_lock lock(m_giveBackMutex, std::try_to_lock);
  if (!lock.owns_lock()) {
    return false;
  }
  Core* const core = m_giveBack.load(std::memory_order_relaxed);  // written under this lock
  if (!core->IsDeleted()) {
    return false;
  }
  if (m_walks.load(std::memory_order_seq_cst) != 0) {
    return false;
  }
  KAVO_TEST_POINT("Chain.GivingBack");
  if (!core->GiveBackCells()) {
    m_giveBack.store(core->Next(), std::memory_order_release);  // see IsGiveBackDue
  }
  return true;
}

}  // namespace Qen
