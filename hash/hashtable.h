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
#include <functional>
#include <utility>

#include "hash/hash_core_migration.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
class Hashtable : public HashCoreMigration<Key, Value, KTraits, VTraits> {
 public:
  using Core = HashCore<Key, Value, KTraits, VTraits>;
  using Callback = std::function<int(Value&)>;

  // The first generation has at least `size` cells. Throws std::bad_alloc after its line.
  explicit Hashtable(const unsigned long long& size);
  Hashtable(const Hashtable&) = delete;
  Hashtable& operator=(const Hashtable&) = delete;
  ~Hashtable();

  // The key's record, which has its block, or null when the key is absent or its first insert has not finished.
  Value* Find(const Key& key) const;

  // `insertCallback` attaches a block to the record of a key that this call created, as its last step; non-zero means
  // that it could not. `foundCallback` examines a record with its block; it runs once, and what it answers is the
  // call's status. Answers the record and 1 (inserted), 0 (found) or a negative status; the record is null after a
  // failure.
  std::pair<Value*, int> InsertOrFind(const Key& key, const Callback& insertCallback, const Callback& foundCallback);

  Core* CurrentGeneration() const noexcept {
    return this->m_curHashCore.load(std::memory_order_acquire);  // see the field
  }
  Core* FirstGeneration() const noexcept { return m_firstHashCore; }

 private:
  int FoundProcess(Value& record, const Callback& foundCallback, Waiter& waiter, bool& again);
  int AssignValue(Value& record, const Callback& insertCallback);
  int MigrateHashCore(Core* core);
  void LeaveIfEmptied(Core* core) noexcept;

  // Owns the chain: each generation leads to the next. Fixed after construction.
  Core* m_firstHashCore = nullptr;
  unsigned long long m_initSize;
};

template <class Key, class Value, class KTraits, class VTraits>
Hashtable<Key, Value, KTraits, VTraits>::Hashtable(const unsigned long long& size) : m_initSize(size < 8 ? 8 : size) {
  try {
    m_firstHashCore = HeapNew<Core>(m_initSize);
  } catch (const std::exception& e) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
    throw std::bad_alloc();
  }
  this->m_curHashCore.store(m_firstHashCore, std::memory_order_release);  // see the field
}

template <class Key, class Value, class KTraits, class VTraits>
Hashtable<Key, Value, KTraits, VTraits>::~Hashtable() {
  for (Core* core = m_firstHashCore; core != nullptr;) {
    Core* next = core->Next();
    HeapDelete(core);
    core = next;
  }
}

// While the key's bucket has MOVED the key is in the next generation. No second look, no fence: an insert that
// completed before this lookup began is either here, or was made in a later generation after MOVED was set, and then
// this lookup sees MOVED.
template <class Key, class Value, class KTraits, class VTraits>
Value* Hashtable<Key, Value, KTraits, VTraits>::Find(const Key& key) const {
  for (const Core* core = CurrentGeneration(); core != nullptr; core = core->Next()) {
    const std::uint64_t home = core->HomeIndex(key);
    const std::uint8_t flags = core->CellAt(home).flags.Load();
    if ((flags & HCore::BUCKET_MOVED) == 0) {
      return core->FindInBucket(key, home, flags);
    }
  }
  return nullptr;
}

// Every run, the first and each further one, is dispatched in the same way.
template <class Key, class Value, class KTraits, class VTraits>
std::pair<Value*, int> Hashtable<Key, Value, KTraits, VTraits>::InsertOrFind(const Key& key,
                                                                             const Callback& insertCallback,
                                                                             const Callback& foundCallback) {
  Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
  for (;;) {
    Value* record = nullptr;
    Core* core = nullptr;
    Core* const start = CurrentGeneration();
    int ret = start->InsertOrFindProcess(key, record, core);
    if (core != start) [[unlikely]] {
      LeaveIfEmptied(start);
    }
    if (ret == ENTRY_FOUND) {
      bool again = false;
      ret = FoundProcess(*record, foundCallback, waiter, again);
      if (again) {
        continue;
      }
      return {ret == KAVO_SUCCESS ? record : nullptr, ret};
    }
    if (ret < 0) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "InsertOrFind failed!");
      return {nullptr, ret};
    }
    const bool stored = record != nullptr;  // claimed by this call, within the threshold or over it
    if (stored) {
      const int assigned = AssignValue(*record, insertCallback);
      if (assigned != KAVO_SUCCESS) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "assignValue failed!");
        return {nullptr, assigned};
      }
      if (ret == ENTRY_INSERTED) {
        return {record, ENTRY_INSERTED};
      }
    }
    ret = MigrateHashCore(core);
    if (ret == KAVO_NO_MEMORY) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "no enough mem!");
    } else if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MigrateHashCore failed!");
    }
    if (stored) {
      return {record, ENTRY_INSERTED};  // whatever became of the growth
    }
    if (ret != KAVO_SUCCESS) {
      return {nullptr, ret};
    }
  }
}

// A record without its block belongs to another thread's insert: look the key up again shortly, from the flags on, for
// that insert may be withdrawn or its bucket move meanwhile.
template <class Key, class Value, class KTraits, class VTraits>
int Hashtable<Key, Value, KTraits, VTraits>::FoundProcess(Value& record, const Callback& foundCallback, Waiter& waiter,
                                                          bool& again) {
  if (record.Get() != nullptr) {
    return foundCallback(record);
  }
  KAVO_TEST_POINT("Driver.WaitForRecord");
  again = waiter.Pause();
  if (!again) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "waitTimes > HCore::MAX_WAIT_TIME");
  }
  return KAVO_FAILED;
}

// The caller owns `record` (FILLING). When this fails, or throws, the record is VACANT: the mover of the bucket need
// not wait for it, and the next offer of the key takes it over.
template <class Key, class Value, class KTraits, class VTraits>
int Hashtable<Key, Value, KTraits, VTraits>::AssignValue(Value& record, const Callback& insertCallback) {
  struct Ownership {
    explicit Ownership(Value& owned) noexcept : m_owned(owned) {}
    ~Ownership() {
      if (m_owned.State() == RecordState::FILLING) {
        m_owned.Withdraw();
      }
    }
    Ownership(const Ownership&) = delete;
    Ownership& operator=(const Ownership&) = delete;
    Value& m_owned;
  } const ownership(record);
  KAVO_TEST_POINT("Driver.Attaching");
  return insertCallback(record) == KAVO_SUCCESS ? KAVO_SUCCESS : KAVO_NO_MEMORY;
}

// An insert was sent on from `core`. If all of it has been sent on and it is still current, whoever emptied it failed
// to leave it (its lock reported an error).
template <class Key, class Value, class KTraits, class VTraits>
void Hashtable<Key, Value, KTraits, VTraits>::LeaveIfEmptied(Core* core) noexcept {
  if (!core->IsEmptied() || core->IsDeleted()) {
    return;
  }
  try {
    static_cast<void>(this->DeleteOldTable(core));
  } catch (const std::exception& e) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "lock failed, exception caught:%s", e.what());  // the next insert tries again
  }
}

// Brings about the end of `core`, which is full. The caller holds nothing. Does not throw: the insert that brought this
// about may have been done by now.
template <class Key, class Value, class KTraits, class VTraits>
int Hashtable<Key, Value, KTraits, VTraits>::MigrateHashCore(Core* core) {
  // Release: pairs with the loads in the chain; the pointer is the same whoever stores it.
  this->m_root.store(&this->m_curHashCore, std::memory_order_release);
  try {
    switch (this->m_rehashType.load(std::memory_order_relaxed)) {  // set before the first insert
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
