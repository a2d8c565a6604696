#include "model/reference_model.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>

#include "kavo.h"
#include "model/expect.h"

namespace KavoTest {
namespace {

constexpr unsigned MAX_VALUE_LEN = 4294967291U;

// Copies the caller's bytes over an entry's value. False when they overlap it, but for the value itself; then the value
// is zero.
bool Copy(ModelEntry& entry, const unsigned char* from, unsigned length) {
  if (from == entry.address) {
    return true;
  }
  const auto a = reinterpret_cast<std::uintptr_t>(entry.address);
  const auto b = reinterpret_cast<std::uintptr_t>(from);
  if (std::max(a, b) - std::min(a, b) < length) {
    entry.bytes.assign(length, 0);
    return false;
  }
  entry.bytes.assign(from, from + length);
  return true;
}

ModelEntry& Create(ModelTable& table, long key) {
  for (auto& [cursor, walk] : table.walks) {
    walk.Disturb();
  }
  ModelEntry& entry = table.entries[key];
  entry.bytes.assign(table.valueLen, 0);
  return entry;
}

// A new key of KavoInsert or KavoInsertOrUpdate.
void CreateWith(ModelTable& table, long key, const unsigned char* value, unsigned filterCount, unsigned state) {
  ModelEntry& entry = Create(table, key);
  entry.count = filterCount;
  entry.admitted = value != nullptr;
  if (entry.admitted) {
    table.pool.TakeOrdinary();
    entry.bytes.assign(value, value + table.valueLen);
    entry.state = state;
  }
}

// Whether the caller's value is refused. Only filter tables take none, and then look at no length.
bool IsBadValue(const ModelTable& table, const unsigned char* value, unsigned valueLen) {
  return value == nullptr ? !table.IsFilter() : valueLen != table.valueLen;
}

}  // namespace

int ModelPool::Fetch(unsigned long long index) {
  if (!m_prepared) {
    return KAVO_NO_MEMORY;
  }
  if (index >= m_capacity || m_slots[index].taken) {
    return KAVO_INVALID;
  }
  m_slots[index].bytes.resize(m_zeros.size());
  return KAVO_SUCCESS;
}

void ModelPool::TakeOrdinary() {
  if (!m_prepared && m_cursor < m_capacity) {
    m_slots[m_cursor++].taken = true;
  }
}

bool ModelPool::TakePrepared(ModelEntry& entry) {
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

void ModelTable::CheckAddress(long owner, unsigned char*& known, unsigned char* given) {
  if (known != nullptr) {
    Expect(given == known, "the value has moved");
    return;
  }
  Expect(given != nullptr && reinterpret_cast<std::uintptr_t>(given) % 8 == 0, "bad address");
  const auto behind = addresses.lower_bound(given);
  Expect(behind == addresses.end() || static_cast<std::size_t>(behind->first - given) >= valueLen,
         "the value overlaps that of ", behind == addresses.end() ? 0 : behind->second);
  if (behind != addresses.begin()) {
    const auto before = std::prev(behind);
    Expect(static_cast<std::size_t>(given - before->first) >= valueLen, "the value overlaps that of ", before->second);
  }
  addresses.emplace(given, owner);
  known = given;
}

ModelEntry* ModelTable::Find(long key) {
  const auto at = entries.find(key);
  return at == entries.end() ? nullptr : &at->second;
}

ModelTable* ReferenceModel::Table(unsigned id) {
  const auto at = m_tables.find(id);
  return at == m_tables.end() ? nullptr : &at->second;
}

// A table of so many values of the greatest length would not fit into any address space; other sizes are taken to fit.
int ReferenceModel::InitHashTable(unsigned id, unsigned size, unsigned valueLen, unsigned tableType) {
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

int ReferenceModel::UninitHashTable(unsigned id) {
  return m_tables.erase(id) == 0 ? KAVO_INVALID : KAVO_SUCCESS;
}

ReferenceModel::ValueAnswer ReferenceModel::Lookup(unsigned id, long key) {
  ModelTable* const table = Table(id);
  ModelEntry* const entry = key >= 0 && table != nullptr ? table->Find(key) : nullptr;
  return {entry == nullptr ? KAVO_INVALID : KAVO_SUCCESS, entry};
}

ReferenceModel::ValueAnswer ReferenceModel::LookupForUpdate(unsigned id, long key) {
  const ValueAnswer answer = Lookup(id, key);
  if (answer.entry != nullptr) {
    answer.entry->state = 0;
  }
  return answer;
}

int ReferenceModel::Update(unsigned id, long key, const unsigned char* value, unsigned valueLen) {
  ModelTable* const table = Table(id);
  if (value == nullptr || key < 0 || table == nullptr || valueLen != table->valueLen) {
    return KAVO_INVALID;
  }
  ModelEntry* const entry = table->Find(key);
  if (entry == nullptr || !entry->admitted) {
    return KAVO_INVALID;
  }
  entry->state = 0;
  return Copy(*entry, value, valueLen) ? KAVO_SUCCESS : KAVO_NO_MEMORY;
}

int ReferenceModel::Insert(unsigned id, long key, const unsigned char* value, unsigned valueLen, unsigned filterCount,
                           unsigned state) {
  ModelTable* const table = Table(id);
  if (key < 0 || table == nullptr || IsBadValue(*table, value, valueLen) || table->Find(key) != nullptr) {
    return KAVO_INVALID;
  }
  CreateWith(*table, key, value, filterCount, state == 2 ? 0 : state == 0 ? 2 : state);
  return KAVO_SUCCESS;
}

int ReferenceModel::InsertOrUpdate(unsigned id, long key, const unsigned char* value, unsigned valueLen,
                                   unsigned filterCount) {
  ModelTable* const table = Table(id);
  if (key < 0 || table == nullptr || IsBadValue(*table, value, valueLen)) {
    return KAVO_INVALID;
  }
  ModelEntry* const entry = table->Find(key);
  if (entry == nullptr) {
    CreateWith(*table, key, value, filterCount, 0);
    return KAVO_SUCCESS;
  }
  if (!entry->admitted || value == nullptr) {
    return KAVO_SUCCESS;
  }
  if (!Copy(*entry, value, valueLen)) {
    return KAVO_NO_MEMORY;
  }
  entry->state = 0;
  return KAVO_SUCCESS;
}

ReferenceModel::ValueAnswer ReferenceModel::LookupOrInsert(unsigned id, long key, unsigned filterCount) {
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
  entry = &Create(*table, key);
  if (table->IsFilter()) {
    entry->count = filterCount;
    entry->admitted = filterCount == 0 || filterCount > table->threshold;
  }
  const bool startsAsZeros = entry->admitted && !table->pool.TakePrepared(*entry);
  return {KAVO_SUCCESS, entry, startsAsZeros ? 0U : 1U};
}

int ReferenceModel::SetFilterFreq(unsigned id, unsigned freq) {
  ModelTable* const table = Table(id);
  if (table == nullptr || !table->IsFilter()) {
    return KAVO_INVALID;
  }
  table->threshold = freq == 0 ? 0 : freq - 1;
  return KAVO_SUCCESS;
}

int ReferenceModel::PrepareMemForValues(unsigned id, std::optional<unsigned long long>& count) {
  ModelTable* const table = Table(id);
  if (table == nullptr) {
    return KAVO_INVALID;
  }
  count = table->pool.Capacity();
  if (table->pool.IsPrepared()) {
    return KAVO_INVALID;
  }
  table->pool.Prepare();
  return KAVO_SUCCESS;
}

int ReferenceModel::GetMemForValue(unsigned id, unsigned long long index) {
  ModelTable* const table = Table(id);
  return table != nullptr ? table->pool.Fetch(index) : KAVO_INVALID;
}

int ReferenceModel::GetHtSizeAndVl(unsigned id, bool admittedOnly, unsigned long long& size) {
  ModelTable* const table = Table(id);
  if (table == nullptr) {
    return KAVO_INVALID;
  }
  size = static_cast<unsigned long long>(
      std::count_if(table->entries.begin(), table->entries.end(),
                    [admittedOnly](const auto& entry) { return !admittedOnly || entry.second.admitted; }));
  return KAVO_SUCCESS;
}

int ReferenceModel::BatchGetNext(unsigned id, const void* cursor) {
  const ModelTable* const table = Table(id);
  return table != nullptr && (cursor == nullptr || table->walks.contains(cursor)) ? KAVO_SUCCESS : KAVO_INVALID;
}

int ReferenceModel::InitPartitionMap(unsigned partitionNum, const std::vector<unsigned>& psIds) {
  if (partitionNum == 0 || psIds.empty()) {
    return KAVO_INVALID;
  }
  const PartitionMap offered{partitionNum, psIds};
  if (m_partitionMap.has_value()) {
    return *m_partitionMap == offered ? KAVO_EXISTS : KAVO_FAILED;
  }
  m_partitionMap = offered;
  return KAVO_SUCCESS;
}

int ReferenceModel::UninitPartitionMap() {
  const bool had = m_partitionMap.has_value();
  m_partitionMap.reset();
  return had ? KAVO_SUCCESS : KAVO_UNSUPPORTED;
}

int ReferenceModel::QueryPartitionMapPsId(unsigned long long key, unsigned& psId) const {
  if (!m_partitionMap.has_value()) {
    return KAVO_FAILED;
  }
  psId = m_partitionMap->psIds[key % m_partitionMap->psIds.size()];
  return KAVO_SUCCESS;
}

}  // namespace KavoTest
