// EsConcurrentTable: what the registry owns for a table id. It binds one hash table, which finds a key's value record,
// to one pool, which owns the blocks that the records point to, and leaves to the table kinds what an entry's record
// means.
//
// Contract
//  - Construction and destruction belong to one thread, which no other may overlap. Every other operation is const,
//    changes only what the members point to, and may run on any number of threads at once.
//  - Value bytes are plain memory: who writes them beside another reader or writer of the same key is the caller's to
//    settle. Headers are atomic (value_header.h).
//  - Once built, the object never changes but for its export cursors, and a block stays at its address until the table
//    is destroyed.
//
// The table keeps none of its creation parameters: capacity is the hash table's, table id and block size the pool's.
#pragma once

#include <cstdint>
#include <exception>
#include <new>

#include "hash/concurrent_table.h"
#include "hash/log_unit.h"
#include "kavo.h"
#include "memory/memory_pool.h"
#include "platform/allocation.h"
#include "platform/bounded_copy.h"
#include "table/export_cursors.h"
#include "table/new_value.h"
#include "table/value_header.h"

namespace Qen {

template <class TableId, class Key, class Value, class KTraits, class VTraits>
class EsConcurrentTable {
 public:
  using Table = ConcurrentTable<Key, Value, KTraits, VTraits>;
  using Cursor = typename Table::iterator;

  // What an entry's record points to: for each key one, for the life of the table.
  using Pointee = typename Value::Pointee;

  // The argument record of InsertOrFind.
  struct OperationInfo {
    Key key;
    unsigned char* rawPtr;         // out: the entry's block, header first; set to null before the call
    MemKind memKind;               // in: the stock wanted for a new entry; out: the stock that its block came from
    NewValue* newValue = nullptr;  // in: written into a new entry's block; null leaves the block as the pool gave it
  };

  // `size` is the number of entries expected, 0 for the default. `valueLen` must leave room for the header in 32 bits.
  // `records` are the blocks that the entries' records name, where those are not the pool's.
  // Throws std::bad_alloc, logged; what was allocated is given back.
  EsConcurrentTable(const TableId& tableId, const unsigned long long& size, const unsigned& valueLen,
                    const BlockDirectory* records = nullptr);
  virtual ~EsConcurrentTable() = default;
  EsConcurrentTable(const EsConcurrentTable&) = delete;
  EsConcurrentTable& operator=(const EsConcurrentTable&) = delete;

  // The block of an entry; null when it has none.
  virtual unsigned char* GetValue(Pointee* value) const = 0;

  // Finds the key, or inserts it with a block from the pool. The status is 1 for a new entry, 0 for one that was
  // there, negative for a failure; 0 and 1 come with the block in `info.rawPtr`. Does not allocate.
  virtual int InsertOrFind(OperationInfo& info) const = 0;

  // Overwrites an entry's value bytes and marks the entry changed.
  virtual int UpdateValue(Pointee* value, const unsigned char* src, unsigned len) const = 0;

  // The number of entries, by a walk over the table, and the value length. With `admittedOnly` entries without a block
  // are not counted.
  virtual void GetTableSizeAndVl(unsigned long long& size, unsigned& valueLen, bool admittedOnly) const = 0;

  // Whether an export of this mode takes the entry. A marking export counts it as exported from here on.
  virtual bool IsMeetRequirements(unsigned mode, Pointee* value) const = 0;

  // Writes the entry at which `it` stands into element `index`.
  virtual void SetBatchInfo(KavoHtBatchInfo& info, const Cursor& it, unsigned index) const = 0;

  // Writes the kind of table into the record.
  virtual void SetTableType(KavoHtBatchInfo& info) const = 0;

  // Null when the key is absent or its insert has not finished.
  Pointee* Find(const Key& key) const { return m_table->GetHashtable().Find(key); }
  // The same, but logs nothing; PrefetchHome may be called some time before it.
  Pointee* FindQuietly(const Key& key) const { return m_table->GetHashtable().FindQuietly(key); }
  void PrefetchHome(const Key& key) const noexcept { m_table->GetHashtable().PrefetchHome(key); }

  // REHASH_GRADUAL or REHASH_WHOLE_TABLE. While no insert runs.
  void SetRehashType(std::uint8_t type) const noexcept { m_table->GetHashtable().SetRehashType(type); }

  // The preallocation of values, as the pool's operations (memory_pool.h); see there when each may be called.
  int PrepareMemForValues(unsigned long long& count) const { return m_pool->PrepareMemForValues(count); }
  int GetMemForValue(unsigned long long index, unsigned char*& block) const;

  // Adds what the table holds and has done. Throws what a lock throws.
  void AddStats(KavoTableStats& stats) const {
    m_table->GetHashtable().AddStats(stats);
    const MemoryPool::Usage values = m_pool->GetUsage();
    stats.valueBytes += values.handedOut;
    stats.stockBytes += values.inStock;
  }

  unsigned ValueLen() const noexcept { return m_pool->BlockSize() - VALUE_HEADER_BYTES; }
  unsigned long long Capacity() const { return m_table->Capacity(); }

 protected:
  Table& HashTableOwner() const noexcept { return *m_table; }

  // A new entry's block. 0, or KAVO_NO_MEMORY.
  int GetMemAndRawPtr(MemKind& kind, NumberedBlock& block) const;

  // One batch of an export, of at least one element; `iter` null begins one, and is null again after its end. Here and
  // below `self` is the table itself, under its own type, and `hint` is called with the cells that the walk comes to.
  // KAVO_NO_MEMORY, KAVO_INVALID (`iter` is not a cursor of this table); throws what a lock throws.
  template <class Self, class Hint>
  static int GetBatchNext(const Self& self, KavoHtBatchInfo& info, unsigned& realNum, void*& iter, const Hint& hint);

  template <class Self, class Hint>
  static unsigned long long CountEntries(const Self& self, bool admittedOnly, const Hint& hint) noexcept;

 private:
  // The first two are fixed after construction.
  HeapPtr<MemoryPool> m_pool;
  HeapPtr<Table> m_table;
  mutable ExportCursors<Cursor> m_batchIters;
};

template <class TableId, class Key, class Value, class KTraits, class VTraits>
EsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::EsConcurrentTable(const TableId& tableId,
                                                                            const unsigned long long& size,
                                                                            const unsigned& valueLen,
                                                                            const BlockDirectory* records) {
  try {
    m_pool = MakeHeapPtr<MemoryPool>(tableId, valueLen + VALUE_HEADER_BYTES);
    m_table = MakeHeapPtr<Table>(size, records == nullptr ? m_pool->Directory() : *records);
  } catch (const std::exception& error) {
    KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", error.what());
    throw std::bad_alloc();
  }
  // One block for each entry that the hash table has settled on.
  const int ret = m_pool->InitMemPool(m_table->Capacity());
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "InitMemPool failed, ret = %d.", ret);
    throw std::bad_alloc();
  }
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int EsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::GetMemAndRawPtr(MemKind& kind,
                                                                              NumberedBlock& block) const {
  const int ret = m_pool->GetMem(block, kind);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "pool GetMem failed, ret = [%d]", ret);
    return KAVO_NO_MEMORY;
  }
  return KAVO_SUCCESS;
}

template <class TableId, class Key, class Value, class KTraits, class VTraits>
int EsConcurrentTable<TableId, Key, Value, KTraits, VTraits>::GetMemForValue(unsigned long long index,
                                                                             unsigned char*& block) const {
  const int ret = m_pool->GetMemForValues(index, block);
  if (ret != KAVO_SUCCESS) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "pool.GetMemForValues failed");
  }
  return ret;
}

}  // namespace Qen

#include "table/batch_export.h"
