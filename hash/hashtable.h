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

  using OnMiss = typename Core::OnMiss;

  // The first generation has at least `size` cells. `blocks` are those that callbacks attach; it outlives the table.
  // Throws std::bad_alloc, logged.
  Hashtable(const unsigned long long& size, const BlockDirectory& blocks) : m_initSize(size < 8 ? 8 : size) {
    try {
      m_firstHashCore = HeapNew<Core>(m_initSize, blocks);
    } catch (const std::exception& e) {
      KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
      throw std::bad_alloc();
    }
    this->m_curHashCore.store(m_firstHashCore, std::memory_order_release);  // see the field
    this->m_giveBack.store(m_firstHashCore, std::memory_order_release);     // see the field
  }
  Hashtable(const Hashtable&) = delete;
  Hashtable& operator=(const Hashtable&) = delete;
  ~Hashtable() {
    for (Core* core = m_firstHashCore; core != nullptr;) {
      Core* next = core->Next();
      HeapDelete(core);
      core = next;
    }
  }

  // The key's block, or null when the key is absent or its first insert has not finished.
  //
  // While the key's bucket has MOVED the key is in the next generation. An insert that completed before this lookup
  // began is either here, or was made in a later generation after MOVED was set, and then this lookup sees MOVED; or,
  // if the cells were given back meanwhile and read as an empty bucket in place, it sees that the generation is
  // retired.
  Pointee* Find(const Key& key, OnMiss onMiss = OnMiss::LOG) const {
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

  // The same without a log line, for many keys one after the other: what a home cell can answer, as most can, is found
  // in the caller's loop. A block is right, whatever the flags say. A home cell that was empty while its bucket had not
  // moved (it does not move back, so the flags may be read later), in a generation that is not retired even after that,
  // has no keys.
  Pointee* FindQuietly(const Key& key) const {
    const Core* const core = CurrentGeneration();
    const auto& home = core->CellAt(core->HomeIndex(key));
    const Key homeKey = home.LoadKey();
    if (homeKey == key) {
      if (Pointee* const block = core->BlockOf(home.value); block != nullptr) {
        return block;
      }
    } else if (homeKey == HCore::EMPTY_KEY && (home.flags.Load() & HCore::BUCKET_MOVED) == 0 && !core->IsDeleted()) {
      return nullptr;
    }
    return FindFurther(key);
  }

  // Asks for the cells that Find will come to first.
  void PrefetchHome(const Key& key) const noexcept {
    const Core* const core = CurrentGeneration();
    PrefetchForRead(&core->CellAt(core->HomeIndex(key)));
    if (const Core* const next = core->Next(); next != nullptr) [[unlikely]] {
      PrefetchForRead(&next->CellAt(next->HomeIndex(key)));
    }
  }

  // `insertCallback`, int(Value&), attaches a block to the record of a key that this call created, as its last step;
  // non-zero means that it could not. `foundCallback`, int(Pointee&), is given the block of a key that was there; it
  // runs once, and what it answers is the call's status. Answers 1 (inserted), 0 (found) or a negative status. Nobody
  // may touch the record after its block was attached: its cell may be given back.
  //
  // A key found in its home cell, the common case where keys are offered again and again, needs no more than that: its
  // block is right, whatever the flags say.
  template <class InsertCallback, class FoundCallback>
  int InsertOrFind(const Key& key, const InsertCallback& insertCallback, const FoundCallback& foundCallback) {
    Core* const start = CurrentGeneration();
    Pointee* const block = start->FindAtHome(key);
    return block != nullptr ? foundCallback(*block) : InsertOrFind(key, insertCallback, foundCallback, start);
  }

  // REHASH_GRADUAL or REHASH_WHOLE_TABLE. While no insert runs.
  void SetRehashType(std::uint8_t type) noexcept { this->m_rehashType.store(type, std::memory_order_relaxed); }

  // Adds what the table's generations hold and have done. Walks along the chain, not over cells.
  void AddStats(KavoTableStats& stats) const noexcept {
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

  Core* CurrentGeneration() const noexcept {
    return this->m_curHashCore.load(std::memory_order_acquire);  // see the field
  }
  Core* FirstGeneration() const noexcept { return m_firstHashCore; }

 private:
  // Not inlined, here and below: what they do with registers, a key found at home need not pay for.
  [[gnu::noinline]] Pointee* FindFurther(const Key& key) const { return Find(key, OnMiss::QUIET); }
  template <class InsertCallback, class FoundCallback>
  [[gnu::noinline]] int InsertOrFind(const Key& key, const InsertCallback& insertCallback,
                                     const FoundCallback& foundCallback, Core* start);

  // A key without its block belongs to another thread's insert: searches again, from the flags on, until that insert is
  // done, or was withdrawn. Answers as InsertOrFindProcess does, never that the key is there without its block.
  int FoundProcess(const Key& key, Core* start, Entry& entry, Core*& core) {
    Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
    int ret = ENTRY_FOUND;
    while (ret == ENTRY_FOUND && entry.block == nullptr) {
      KAVO_TEST_POINT("Driver.WaitForRecord");
      if (!waiter.Pause()) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "waitTimes > HCore::MAX_WAIT_TIME");
        return KAVO_FAILED;
      }
      ret = start->InsertOrFindProcess(key, entry, core);
    }
    if (ret < 0) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "InsertOrFind failed!");
    }
    return ret;
  }

  // The caller owns `record` (FILLING). When this fails, or throws, the record is VACANT: the mover of the bucket need
  // not wait for it, and the next offer of the key takes it over.
  template <class InsertCallback>
  static int AssignValue(Value& record, const InsertCallback& insertCallback) {
    OnExit withdraw([&record]() noexcept { record.Withdraw(); });
    KAVO_TEST_POINT("Driver.Attaching");
    if (insertCallback(record) != KAVO_SUCCESS) {
      return KAVO_NO_MEMORY;
    }
    withdraw.Dismiss();
    return KAVO_SUCCESS;
  }

  int MigrateHashCore(const Key& key, Core* core);

  // The part of a new key's insert in a growth under way, its own work being done: a few buckets of the oldest
  // generation in use, a piece of a retired one's memory.
  void ShareGrowth(Core* start) noexcept {
    if (start->Next() != nullptr && this->m_rehashType.load(std::memory_order_relaxed) == REHASH_GRADUAL) [[unlikely]] {
      this->Sweep(start);
    }
    if (this->IsGiveBackDue()) [[unlikely]] {
      static_cast<void>(this->GiveBackSome());
    }
  }

  // Owns the chain: each generation leads to the next. Fixed after construction.
  Core* m_firstHashCore = nullptr;
  unsigned long long m_initSize;
};

// Every run, the first and each further one, is dispatched in the same way.
template <class Key, class Value, class KTraits, class VTraits>
template <class InsertCallback, class FoundCallback>
int Hashtable<Key, Value, KTraits, VTraits>::InsertOrFind(const Key& key, const InsertCallback& insertCallback,
                                                          const FoundCallback& foundCallback, Core* start) {
  for (;; start = CurrentGeneration()) {
    Entry entry;
    Core* core = nullptr;
    int ret = start->InsertOrFindProcess(key, entry, core);
    // At the end: until its block is attached, the owner of a new record waits for nobody.
    const OnExit retire([&]() noexcept {
      if (core != start) [[unlikely]] {
        this->RetireIfEmptied(start);
      }
    });
    if (ret == ENTRY_FOUND && entry.block == nullptr) {
      ret = FoundProcess(key, start, entry, core);
    } else if (ret < 0) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "InsertOrFind failed!");
    }
    if (ret < 0) {
      return ret;
    }
    if (ret == ENTRY_FOUND) {
      return foundCallback(*entry.block);
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
