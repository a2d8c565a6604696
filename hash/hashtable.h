// A table's hash side: the driver of every insert, and lookup, over the chain of generations.
//
// CONTRACT. All members but construction and destruction may run at once on any threads.
//   Find          never waits; sees every key whose insert completed before it began, with its block.
//   InsertOrFind  exactly one of the calls that offer one new key creates it (single creator); the others get its
//   block.
//
// Status 1 of InsertOrFind means that this call's insert callback has run and attached the block; status 0, that the
// found callback has seen a record with its block. A call that fails leaves the key as it was, or VACANT (absent, and
// the next offer takes it over). The block is attached before any growth that the insert brought about, and a growth
// that fails then does not undo the insert: the key is in the table, and the next insert tries to grow again.
#pragma once

#include <cstdint>
#include <exception>
#include <new>

#include "hash/hash_core_migration.h"
#include "platform/on_exit.h"
#include "platform/prefetch.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
class Hashtable : public HashCoreMigration<Key, Value, KTraits, VTraits> {
 public:
  using Core = HashCore<Key, Value, KTraits, VTraits>;
  using Entry = typename Core::Entry;
  using Pointee = typename Value::Pointee;

  // The first generation has at least `size` cells. `blocks` are those that callbacks attach; it outlives the table.
  // Throws std::bad_alloc after its line.
  Hashtable(const unsigned long long& size, const BlockDirectory& blocks);
  Hashtable(const Hashtable&) = delete;
  Hashtable& operator=(const Hashtable&) = delete;
  ~Hashtable();

  using OnMiss = typename Core::OnMiss;

  // The key's block, or null when the key is absent or its first insert has not finished.
  Pointee* Find(const Key& key, OnMiss onMiss = OnMiss::LOG) const;

  // Asks for the cells that Find will come to first.
  void PrefetchHome(const Key& key) const noexcept;

  // `insertCallback`, int(Value&), attaches a block to the record of a key that this call created, as its last step;
  // non-zero means that it could not. `foundCallback`, int(Pointee&), is given the block of a key that was there; it
  // runs once, and what it answers is the call's status. Answers 1 (inserted), 0 (found) or a negative status. Nobody
  // may touch the record after its block was attached: its cell may be given back.
  template <class InsertCallback, class FoundCallback>
  int InsertOrFind(const Key& key, const InsertCallback& insertCallback, const FoundCallback& foundCallback);

  // REHASH_GRADUAL or REHASH_WHOLE_TABLE. While no insert runs.
  void SetRehashType(std::uint8_t type) noexcept { this->m_rehashType.store(type, std::memory_order_relaxed); }

  // Adds what the table's generations hold and have done. Walks along the chain, not over cells.
  void AddStats(KavoTableStats& stats) const noexcept;

  Core* CurrentGeneration() const noexcept {
    return this->m_curHashCore.load(std::memory_order_acquire);  // see the field
  }
  Core* FirstGeneration() const noexcept { return m_firstHashCore; }

 private:
  bool FoundProcess(Waiter& waiter);
  template <class InsertCallback>
  int AssignValue(Value& record, const InsertCallback& insertCallback);
  int MigrateHashCore(const Key& key, Core* core);
  void ShareGrowth(Core* start) noexcept;

  // Owns the chain: each generation leads to the next. Fixed after construction.
  Core* m_firstHashCore = nullptr;
  unsigned long long m_initSize;
};

template <class Key, class Value, class KTraits, class VTraits>
Hashtable<Key, Value, KTraits, VTraits>::Hashtable(const unsigned long long& size, const BlockDirectory& blocks)
    : m_initSize(size < 8 ? 8 : size) {
  try {
    m_firstHashCore = HeapNew<Core>(m_initSize, blocks);
  } catch (const std::exception& e) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
    throw std::bad_alloc();
  }
  this->m_curHashCore.store(m_firstHashCore, std::memory_order_release);  // see the field
  this->m_giveBack.store(m_firstHashCore, std::memory_order_release);     // likewise
}

template <class Key, class Value, class KTraits, class VTraits>
Hashtable<Key, Value, KTraits, VTraits>::~Hashtable() {
  for (Core* core = m_firstHashCore; core != nullptr;) {
    Core* next = core->Next();
    HeapDelete(core);
    core = next;
  }
}

// While the key's bucket has MOVED the key is in the next generation. An insert that completed before this lookup began
// is either here, or was made in a later generation after MOVED was set, and then this lookup sees MOVED; or, if the
// cells were given back meanwhile and read as an empty bucket in place, it sees that the generation was left.
template <class Key, class Value, class KTraits, class VTraits>
auto Hashtable<Key, Value, KTraits, VTraits>::Find(const Key& key, OnMiss onMiss) const -> Pointee* {
  for (const Core* core = CurrentGeneration(); core != nullptr; core = core->Next()) {
    const std::uint64_t home = core->HomeIndex(key);
    const std::uint8_t flags = core->CellAt(home).flags.Load();
    if ((flags & HCore::BUCKET_MOVED) == 0) {
      Pointee* const block = core->FindInBucket(key, home, flags, onMiss);
      if (block != nullptr || !core->IsDeleted()) {
        return block;
      }
    }
  }
  return nullptr;
}

template <class Key, class Value, class KTraits, class VTraits>
void Hashtable<Key, Value, KTraits, VTraits>::PrefetchHome(const Key& key) const noexcept {
  const Core* const core = CurrentGeneration();
  PrefetchForRead(&core->CellAt(core->HomeIndex(key)));
  if (const Core* const next = core->Next(); next != nullptr) [[unlikely]] {
    PrefetchForRead(&next->CellAt(next->HomeIndex(key)));
  }
}

template <class Key, class Value, class KTraits, class VTraits>
void Hashtable<Key, Value, KTraits, VTraits>::AddStats(KavoTableStats& stats) const noexcept {
  const Core* const current = CurrentGeneration();
  bool inUse = false;
  for (const Core* core = m_firstHashCore; core != nullptr; core = core->Next()) {
    inUse = inUse || core == current;
    (inUse ? stats.cellBytes : stats.leftCellBytes) += core->CellBytes();
    stats.generations += inUse ? 1 : 0;
    stats.mapBytes += core->MapBytes();
    stats.maps += core->MapNum();
    stats.movedEntries += core->MovedEntries();
  }
  // Relaxed: statistics.
  stats.growths += this->m_growths.load(std::memory_order_relaxed);
  stats.backstopCompletions += this->m_backstopCompletions.load(std::memory_order_relaxed);
}

// Every run, the first and each further one, is dispatched in the same way. A key found in its home cell, the common
// case where keys are offered again and again, needs no run at all: its block is right, whatever the flags say.
template <class Key, class Value, class KTraits, class VTraits>
template <class InsertCallback, class FoundCallback>
int Hashtable<Key, Value, KTraits, VTraits>::InsertOrFind(const Key& key, const InsertCallback& insertCallback,
                                                          const FoundCallback& foundCallback) {
  if (Pointee* const block = CurrentGeneration()->FindAtHome(key); block != nullptr) {
    return foundCallback(*block);
  }
  Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
  for (;;) {
    Entry entry;
    Core* core = nullptr;
    Core* const start = CurrentGeneration();
    int ret = start->InsertOrFindProcess(key, entry, core);
    // At the end: until its block is attached, the owner of a new record waits for nobody.
    const OnExit leave([&]() noexcept {
      if (core != start) [[unlikely]] {
        this->LeaveIfEmptied(start);
      }
    });
    if (ret == ENTRY_FOUND) {
      if (entry.block != nullptr) {
        return foundCallback(*entry.block);
      }
      if (!FoundProcess(waiter)) {
        return KAVO_FAILED;
      }
      continue;
    }
    if (ret < 0) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "InsertOrFind failed!");
      return ret;
    }
    const bool stored = entry.record != nullptr;  // claimed by this call, within the threshold or over it
    if (stored) {
      const int assigned = AssignValue(*entry.record, insertCallback);
      if (assigned != KAVO_SUCCESS) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "assignValue failed!");
        return assigned;
      }
    }
    if (ret == MUST_GROW) {
      ret = MigrateHashCore(key, core);
      if (ret == KAVO_NO_MEMORY) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "no enough mem!");
      } else if (ret != KAVO_SUCCESS) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MigrateHashCore failed!");
      }
      if (ret != KAVO_SUCCESS && !stored) {
        return ret;
      }
    }
    if (stored) {
      ShareGrowth(start);
      return ENTRY_INSERTED;  // whatever became of the growth
    }
  }
}

// A key without its block belongs to another thread's insert: look it up again shortly, from the flags on, for that
// insert may be withdrawn or its bucket move meanwhile. False, after a line, when that took too long.
template <class Key, class Value, class KTraits, class VTraits>
bool Hashtable<Key, Value, KTraits, VTraits>::FoundProcess(Waiter& waiter) {
  KAVO_TEST_POINT("Driver.WaitForRecord");
  if (waiter.Pause()) {
    return true;
  }
  KAVO_LOG_ERROR(TABLE_LOG_UNIT, "waitTimes > HCore::MAX_WAIT_TIME");
  return false;
}

// The caller owns `record` (FILLING). When this fails, or throws, the record is VACANT: the mover of the bucket need
// not wait for it, and the next offer of the key takes it over.
template <class Key, class Value, class KTraits, class VTraits>
template <class InsertCallback>
int Hashtable<Key, Value, KTraits, VTraits>::AssignValue(Value& record, const InsertCallback& insertCallback) {
  OnExit withdraw([&record]() noexcept { record.Withdraw(); });
  KAVO_TEST_POINT("Driver.Attaching");
  if (insertCallback(record) != KAVO_SUCCESS) {
    return KAVO_NO_MEMORY;
  }
  withdraw.Dismiss();
  return KAVO_SUCCESS;
}

// The part of a new key's insert in a growth under way, its own work being done: a few buckets of the oldest generation
// in use, a piece of a left one's memory.
template <class Key, class Value, class KTraits, class VTraits>
void Hashtable<Key, Value, KTraits, VTraits>::ShareGrowth(Core* start) noexcept {
  if (start->Next() != nullptr && this->m_rehashType.load(std::memory_order_relaxed) == REHASH_GRADUAL) [[unlikely]] {
    this->Sweep(start);
  }
  if (this->IsGiveBackDue()) [[unlikely]] {
    static_cast<void>(this->GiveBackSome());
  }
}

// Makes room in `core`, which is full: for the key's bucket, or for all. The caller holds nothing. Does not throw: the
// insert that brought this about may have been done by now.
template <class Key, class Value, class KTraits, class VTraits>
int Hashtable<Key, Value, KTraits, VTraits>::MigrateHashCore(const Key& key, Core* core) {
  // Release: pairs with the loads in the chain; the pointer is the same whoever stores it, and one store will do.
  if (this->m_root.load(std::memory_order_relaxed) == nullptr) {
    this->m_root.store(&this->m_curHashCore, std::memory_order_release);
  }
  try {
    switch (this->m_rehashType.load(std::memory_order_relaxed)) {  // set before the first insert
      case REHASH_GRADUAL:
        return this->RehashCheck(core, core->HomeIndex(key));
      case REHASH_WHOLE_TABLE:
        return this->BeginWholeTableMigration(core);
      default:
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Invalid rehash type!");
        return KAVO_FAILED;
    }
  } catch (const std::exception& e) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "lock failed, exception caught:%s", e.what());
    return KAVO_FAILED;
  }
}

}  // namespace Qen
