// The chain of generations: building the next one, retiring the old ones. Included by hash_core_migration.h.
#pragma once

#include <exception>
#include <mutex>
#include <new>

#include "hash/hash_core_migration.h"
#include "platform/on_exit.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::MakeNewTable(Core* old, Core*& next) {
  next = old->Next();
  if (next != nullptr) {
    return KAVO_SUCCESS;
  }
  if (!m_buildPermit.load(std::memory_order_relaxed)) {  // a hint, for the log line only
    KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "new table is building by other thread, wait until finish");
  }
  try {
    return BuildNext(old, next);
  } catch (const std::bad_alloc& e) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
    return KAVO_NO_MEMORY;
  }
}

// Building is decided for each generation by itself (has it a next one?), so nobody waits for a builder that will not
// come: whoever gets the mutex and finds no next generation is the builder.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::BuildNext(Core* old, Core*& next) {
  std::lock_guard lock(m_buildMutex);
  next = old->Next();
  if (next != nullptr) {
    return KAVO_SUCCESS;
  }
  m_buildPermit.store(false, std::memory_order_relaxed);
  const OnExit permit([this]() noexcept { m_buildPermit.store(true, std::memory_order_relaxed); });
  KAVO_TEST_POINT("Chain.Building");
  const int ret = SetNextHashCore(MakeHeapPtr<Core>(2 * old->TableSize(), old->Blocks()));
  next = old->Next();
  m_growths.fetch_add(1, std::memory_order_relaxed);  // a statistic
  return ret;
}

// Appends a generation at the end of the chain, which takes it over. Under m_buildMutex.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::SetNextHashCore(HeapPtr<Core> next) {
  const Atomic<Core*>* root = m_root.load(std::memory_order_acquire);  // pairs with the store in MigrateHashCore
  Core* last = root == nullptr ? nullptr : root->load(std::memory_order_acquire);
  if (last == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "m_curHashCore is nullptr");
    return KAVO_FAILED;
  }
  while (Core* following = last->Next()) {
    last = following;
  }
  last->PublishNext(next.release());
  return KAVO_SUCCESS;
}

template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::DeleteOldTable(Core* old) {
  if (old->IsDeleted()) {
    KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "old table is deleted by other thread");
    return KAVO_SUCCESS;
  }
  KAVO_TEST_POINT("Chain.Leaving");
  std::lock_guard lock(m_deleteMutex);
  // Every emptied generation at the front, in order, and none behind one that is not emptied.
  for (;;) {
    Core* retired = nullptr;
    const int ret = UpdateHashCore(retired);
    if (ret != KAVO_SUCCESS || retired == nullptr) {
      return ret;  // if an older one than `old` still holds entries, whoever empties that retires both
    }
    retired->MarkDeleted();
    KAVO_LOG_DEBUG(TABLE_LOG_UNIT, "table[%llu] is deleted, root is [%llu]", retired->TableSize(),
                   retired->Next()->TableSize());
  }
}

// Advances the current generation by one if it is emptied; `retired` is the one that it was. Under m_deleteMutex.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::UpdateHashCore(Core*& retired) {
  Atomic<Core*>* root = m_root.load(std::memory_order_acquire);  // as in SetNextHashCore
  Core* current = root == nullptr ? nullptr : root->load(std::memory_order_acquire);
  if (current == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "m_curHashCore is nullptr");
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "UpdateHashCore failed");
    return KAVO_FAILED;
  }
  if (current->IsEmptied()) {
    root->store(current->Next(), std::memory_order_seq_cst);  // see GiveBackSome
    retired = current;
  }
  return KAVO_SUCCESS;
}

// Every bucket of `core` may have moved, and whoever moved the last may have failed to retire it (its lock reported an
// error): the next insert that comes along tries again.
template <class Key, class Value, class KTraits, class VTraits>
void HashCoreMigration<Key, Value, KTraits, VTraits>::RetireIfEmptied(Core* core) noexcept {
  if (!core->IsEmptied() || core->IsDeleted()) {
    return;
  }
  try {
    static_cast<void>(DeleteOldTable(core));
  } catch (const std::exception& e) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "lock failed, exception caught:%s", e.what());
  }
}

// Where a generation stands, counted from the current one: 1 is the current one itself, 0 one that is retired by now.
template <class Key, class Value, class KTraits, class VTraits>
int HashCoreMigration<Key, Value, KTraits, VTraits>::HashTableGetSeqNum(const Core* core) const {
  const Atomic<Core*>* root = m_root.load(std::memory_order_acquire);  // as in SetNextHashCore
  const Core* generation = root == nullptr ? nullptr : root->load(std::memory_order_acquire);
  if (generation == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Can't find hashTable!");
  }
  for (int position = 1; generation != nullptr; ++position, generation = generation->Next()) {
    if (generation == core) {
      return position;
    }
  }
  return 0;
}

}  // namespace Qen
