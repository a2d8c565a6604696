// What the exported functions must do, said as simply as possible: ordered maps, no concurrency, no growth. One method
// for each function predicts its status and what it gives; where the library has a choice (addresses, the order of an
// export) the model learns what it chose, and holds it to that.
//
// It models one thread, which is the first to insert into each table.
#pragma once

#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "model/export_walk.h"

namespace KavoTest {

// The value memory of a table, as far as callers can tell: which prepared values a new key adopts.
class ModelPool {
 public:
  struct Slot {
    bool taken = false;
    Bytes bytes;                       // once it was fetched
    unsigned char* address = nullptr;  // once the library has given it
  };

  ModelPool(unsigned long long capacity, unsigned valueLen) : m_capacity(capacity), m_zeros(valueLen) {}

  unsigned long long Capacity() const { return m_capacity; }
  bool IsPrepared() const { return m_prepared; }
  void Prepare() { m_prepared = true; }
  // KAVO_SUCCESS, or why the memory of `index` cannot be given.
  int Fetch(unsigned long long index);
  Slot& Fetched(unsigned long long index) { return m_slots.at(index); }

  // The value of a new entry whose bytes are given by an insert: the pool only loses memory.
  void TakeOrdinary();
  // The value of a new entry that would adopt one. True when it does.
  bool TakePrepared(ModelEntry& entry);

 private:
  unsigned long long m_capacity;
  Bytes m_zeros;
  std::map<unsigned long long, Slot> m_slots;  // that were fetched or taken
  unsigned long long m_cursor = 0;             // indexes before it were passed
  bool m_prepared = false;
};

struct ModelTable {
  ModelTable(unsigned tableType, unsigned size, unsigned length)
      : type(tableType),
        valueLen(length),
        pool(size == 0  ? 2097152
             : size < 8 ? 8
                        : size,
             length) {}

  unsigned type;
  unsigned valueLen;
  ModelPool pool;
  ModelEntries entries;
  unsigned threshold = 99;                         // a count above it admits
  std::map<const void*, ExportWalk> walks;         // by the cursor's address
  std::map<const unsigned char*, long> addresses;  // every address that the library has given, and the key

  bool IsFilter() const { return type == KAVO_TABLE_TYPE_FILTER; }
  ModelEntry* Find(long key);
  // An address must be the one that was given before; a new one must lie apart from all others.
  void CheckAddress(long owner, unsigned char*& known, unsigned char* given);
};

class ReferenceModel {
 public:
  struct ValueAnswer {
    int status;
    ModelEntry* entry = nullptr;  // after a success
    unsigned isFind = 0;
  };

  int InitHashTable(unsigned id, unsigned size, unsigned valueLen, unsigned tableType);
  int UninitHashTable(unsigned id);
  ValueAnswer Lookup(unsigned id, long key);
  ValueAnswer LookupForUpdate(unsigned id, long key);
  int Update(unsigned id, long key, const unsigned char* value, unsigned valueLen);
  int Insert(unsigned id, long key, const unsigned char* value, unsigned valueLen, unsigned filterCount,
             unsigned state);
  int InsertOrUpdate(unsigned id, long key, const unsigned char* value, unsigned valueLen, unsigned filterCount);
  ValueAnswer LookupOrInsert(unsigned id, long key, unsigned filterCount);
  int SetFilterFreq(unsigned id, unsigned freq);
  // `count` stays empty when nothing is written.
  int PrepareMemForValues(unsigned id, std::optional<unsigned long long>& count);
  int GetMemForValue(unsigned id, unsigned long long index);
  int GetHtSizeAndVl(unsigned id, bool admittedOnly, unsigned long long& size);
  // For an `eleNum` above 0; what the batch may hold is for the table's walk to say.
  int BatchGetNext(unsigned id, const void* cursor);
  int InitPartitionMap(unsigned partitionNum, const std::vector<unsigned>& psIds);
  int UninitPartitionMap();
  int QueryPartitionMapPsId(unsigned long long key, unsigned& psId) const;

  // A table that is there already.
  void AdoptTable(unsigned id, ModelTable table) { m_tables.insert_or_assign(id, std::move(table)); }
  ModelTable* Table(unsigned id);
  std::map<unsigned, ModelTable>& Tables() { return m_tables; }
  bool HasPartitionMap() const { return m_partitionMap.has_value(); }

 private:
  struct PartitionMap {
    unsigned partitionNum;
    std::vector<unsigned> psIds;
    bool operator==(const PartitionMap&) const = default;
  };

  std::map<unsigned, ModelTable> m_tables;
  std::optional<PartitionMap> m_partitionMap;
};

}  // namespace KavoTest
