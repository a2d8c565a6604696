// What the functions of tables must do, said as simply as possible: ordered maps, no concurrency, no growth. One method
// for each function predicts its status and what it gives; where the library has a choice (addresses, the order of an
// export) the model learns what it chose, and holds it to that.
//
// It models one thread, which is the first to insert into each table.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include "kavo.h"
#include "model/expect.h"
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
  // False when it was done before.
  bool Prepare() { return !std::exchange(m_prepared, true); }
  // KAVO_SUCCESS, or why the memory of `index` cannot be given.
  int Fetch(unsigned long long index) {
    if (!m_prepared) {
      return KAVO_NO_MEMORY;
    }
    if (index >= m_capacity || m_slots[index].taken) {
      return KAVO_INVALID;
    }
    m_slots[index].bytes.resize(m_zeros.size());
    return KAVO_SUCCESS;
  }
  Slot& Fetched(unsigned long long index) { return m_slots.at(index); }

  // The value of a new entry whose bytes are given by an insert: the pool only loses memory.
  void TakeOrdinary() {
    if (!m_prepared && m_cursor < m_capacity) {
      m_slots[m_cursor++].taken = true;
    }
  }
  // The value of a new entry that would adopt one. True when it does.
  bool TakePrepared(ModelEntry& entry) {
    entry.bytes = m_zeros;
    while (m_prepared && m_cursor < m_capacity) {
      const auto slot = m_slots.find(m_cursor++);
      if (slot != m_slots.end() && !slot->second.taken) {
        slot->second.taken = true;
        entry.bytes = slot->second.bytes;
        entry.address = slot->second.address;
        return true;
      }
    }
    return false;
  }

 private:
  unsigned long long m_capacity;
  Bytes m_zeros;
  std::map<unsigned long long, Slot> m_slots;  // that were fetched or taken
  unsigned long long m_cursor = 0;             // indexes before it were passed
  bool m_prepared = false;
};

struct ModelTable {
  ModelTable(unsigned tableType, unsigned size, unsigned length)
      : type(tableType), valueLen(length), pool(size == 0 ? 2097152 : std::max(size, 8U), length) {}

  unsigned type;
  unsigned valueLen;
  ModelPool pool;
  ModelEntries entries;
  unsigned threshold = 99;                         // a count above it admits
  std::map<const void*, ExportWalk> walks;         // by the cursor's address
  std::map<const unsigned char*, long> addresses;  // every address that the library has given, and the key

  bool IsFilter() const { return type == KAVO_TABLE_TYPE_FILTER; }

  ModelEntry* Find(long key) {
    const auto at = entries.find(key);
    return at == entries.end() ? nullptr : &at->second;
  }

  // Whether the caller's value is refused. Only filter tables take none, and then look at no length.
  bool IsBadValue(const unsigned char* value, unsigned length) const {
    return value == nullptr ? !IsFilter() : length != valueLen;
  }

  ModelEntry& Create(long key) {
    for (auto& [cursor, walk] : walks) {
      walk.Disturb();
    }
    ModelEntry& entry = entries[key];
    entry.bytes.assign(valueLen, 0);
    return entry;
  }

  // A new key of KavoInsert or KavoInsertOrUpdate.
  void CreateWith(long key, const unsigned char* value, unsigned filterCount, unsigned state) {
    ModelEntry& entry = Create(key);
    entry.count = filterCount;
    entry.admitted = value != nullptr;
    if (entry.admitted) {
      pool.TakeOrdinary();
      entry.bytes.assign(value, value + valueLen);
      entry.state = state;
    }
  }

  // Copies the caller's bytes over an entry's value. False when they overlap it, but for the value itself; then the
  // value is zero.
  bool Copy(ModelEntry& entry, const unsigned char* from) const {
    if (from == entry.address) {
      return true;
    }
    const auto a = reinterpret_cast<std::uintptr_t>(entry.address);
    const auto b = reinterpret_cast<std::uintptr_t>(from);
    if (std::max(a, b) - std::min(a, b) < valueLen) {
      entry.bytes.assign(valueLen, 0);
      return false;
    }
    entry.bytes.assign(from, from + valueLen);
    return true;
  }

  // An address must be the one that was given before; a new one must lie apart from all others.
  void CheckAddress(long owner, unsigned char*& known, unsigned char* given) {
    if (known != nullptr) {
      Expect(given == known, "the value has moved");
      return;
    }
    Expect(given != nullptr && reinterpret_cast<std::uintptr_t>(given) % 8 == 0, "bad address");
    const auto [place, isNew] = addresses.emplace(given, owner);
    const auto next = std::next(place);
    const bool apart = isNew && (next == addresses.end() || next->first - given >= static_cast<long>(valueLen)) &&
                       (place == addresses.begin() || given - std::prev(place)->first >= static_cast<long>(valueLen));
    Expect(apart, "the value overlaps that of another key");
    known = given;
  }
};

class ReferenceModel {
 public:
  struct ValueAnswer {
    int status;
    ModelEntry* entry = nullptr;  // after a success
    unsigned isFind = 0;
  };

  // A table of so many values of the greatest length would not fit into any address space; other sizes are taken to
  // fit.
  int InitHashTable(unsigned id, unsigned size, unsigned valueLen, unsigned tableType) {
    constexpr unsigned MAX_VALUE_LEN = 4294967291U;
    if (tableType == 2 || valueLen == 0 || valueLen > MAX_VALUE_LEN) {
      return KAVO_INVALID;
    }
    if (Table(id) != nullptr) {
      return KAVO_EXISTS;
    }
    if (tableType > 2) {
      return KAVO_INVALID;
    }
    if (size == std::numeric_limits<unsigned>::max() && valueLen == MAX_VALUE_LEN) {
      return KAVO_NO_MEMORY;
    }
    m_tables.try_emplace(id, tableType, size, valueLen);
    return KAVO_SUCCESS;
  }

  int UninitHashTable(unsigned id) { return m_tables.erase(id) == 0 ? KAVO_INVALID : KAVO_SUCCESS; }

  ValueAnswer Lookup(unsigned id, long key) {
    ModelTable* const table = Table(id);
    ModelEntry* const entry = key >= 0 && table != nullptr ? table->Find(key) : nullptr;
    return {entry == nullptr ? KAVO_INVALID : KAVO_SUCCESS, entry};
  }

  ValueAnswer LookupForUpdate(unsigned id, long key) {
    const ValueAnswer answer = Lookup(id, key);
    if (answer.entry != nullptr) {
      answer.entry->state = 0;
    }
    return answer;
  }

  int Update(unsigned id, long key, const unsigned char* value, unsigned valueLen) {
    ModelTable* const table = Table(id);
    ModelEntry* const entry = Lookup(id, key).entry;
    if (entry == nullptr || !entry->admitted || value == nullptr || valueLen != table->valueLen) {
      return KAVO_INVALID;
    }
    entry->state = 0;
    return table->Copy(*entry, value) ? KAVO_SUCCESS : KAVO_NO_MEMORY;
  }

  int Insert(unsigned id, long key, const unsigned char* value, unsigned valueLen, unsigned filterCount,
             unsigned state) {
    ModelTable* const table = Table(id);
    if (key < 0 || table == nullptr || table->IsBadValue(value, valueLen) || table->Find(key) != nullptr) {
      return KAVO_INVALID;
    }
    table->CreateWith(key, value, filterCount, state == 2 ? 0 : state == 0 ? 2 : state);
    return KAVO_SUCCESS;
  }

  int InsertOrUpdate(unsigned id, long key, const unsigned char* value, unsigned valueLen, unsigned filterCount) {
    ModelTable* const table = Table(id);
    if (key < 0 || table == nullptr || table->IsBadValue(value, valueLen)) {
      return KAVO_INVALID;
    }
    ModelEntry* const entry = table->Find(key);
    if (entry == nullptr) {
      table->CreateWith(key, value, filterCount, 0);
      return KAVO_SUCCESS;
    }
    if (!entry->admitted || value == nullptr) {
      return KAVO_SUCCESS;
    }
    if (!table->Copy(*entry, value)) {
      return KAVO_NO_MEMORY;
    }
    entry->state = 0;
    return KAVO_SUCCESS;
  }

  ValueAnswer LookupOrInsert(unsigned id, long key, unsigned filterCount) {
    ModelTable* const table = Table(id);
    if (key < 0 || table == nullptr) {
      return {KAVO_INVALID};
    }
    ModelEntry* entry = table->Find(key);
    if (entry != nullptr) {
      if (table->IsFilter() && filterCount != 0) {
        const unsigned long long sum = 0ULL + entry->count + filterCount;
        entry->count = static_cast<unsigned>(std::min<unsigned long long>(sum, std::numeric_limits<unsigned>::max()));
        if (!entry->admitted && entry->count > table->threshold) {
          entry->admitted = true;
          table->pool.TakePrepared(*entry);
        }
      }
      return {KAVO_SUCCESS, entry, 1};
    }
    entry = &table->Create(key);
    if (table->IsFilter()) {
      entry->count = filterCount;
      entry->admitted = filterCount == 0 || filterCount > table->threshold;
    }
    const bool startsAsZeros = entry->admitted && !table->pool.TakePrepared(*entry);
    return {KAVO_SUCCESS, entry, startsAsZeros ? 0U : 1U};
  }

  int SetFilterFreq(unsigned id, unsigned freq) {
    ModelTable* const table = Table(id);
    if (table == nullptr || !table->IsFilter()) {
      return KAVO_INVALID;
    }
    table->threshold = freq == 0 ? 0 : freq - 1;
    return KAVO_SUCCESS;
  }

  // `count` stays empty when nothing is written.
  int PrepareMemForValues(unsigned id, std::optional<unsigned long long>& count) {
    ModelTable* const table = Table(id);
    if (table == nullptr) {
      return KAVO_INVALID;
    }
    count = table->pool.Capacity();
    return table->pool.Prepare() ? KAVO_SUCCESS : KAVO_INVALID;
  }

  int GetMemForValue(unsigned id, unsigned long long index) {
    ModelTable* const table = Table(id);
    return table != nullptr ? table->pool.Fetch(index) : KAVO_INVALID;
  }

  int GetHtSizeAndVl(unsigned id, bool admittedOnly, unsigned long long& size) {
    ModelTable* const table = Table(id);
    if (table == nullptr) {
      return KAVO_INVALID;
    }
    const auto counts = [admittedOnly](const auto& entry) { return !admittedOnly || entry.second.admitted; };
    size = static_cast<unsigned long long>(std::ranges::count_if(table->entries, counts));
    return KAVO_SUCCESS;
  }

  // For an `eleNum` above 0; what the batch may hold is for the table's walk to say.
  int BatchGetNext(unsigned id, const void* cursor) {
    const ModelTable* const table = Table(id);
    return table != nullptr && (cursor == nullptr || table->walks.contains(cursor)) ? KAVO_SUCCESS : KAVO_INVALID;
  }

  // A table that is there already.
  void AdoptTable(unsigned id, ModelTable table) { m_tables.insert_or_assign(id, std::move(table)); }
  ModelTable* Table(unsigned id) {
    const auto at = m_tables.find(id);
    return at == m_tables.end() ? nullptr : &at->second;
  }
  std::map<unsigned, ModelTable>& Tables() { return m_tables; }

 private:
  std::map<unsigned, ModelTable> m_tables;
};

}  // namespace KavoTest
