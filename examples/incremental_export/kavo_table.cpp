#include "incremental_export/kavo_table.h"

#include <fmt/format.h>

#include <cstdio>
#include <string>

namespace IncrementalExport {
namespace {

const char* NameOf(int status) {
  switch (status) {
    case KAVO_FAILED:
      return "KAVO_FAILED, a wait passed its limit or a lock failed";
    case KAVO_EXISTS:
      return "KAVO_EXISTS, the table id is in use";
    case KAVO_NO_MEMORY:
      return "KAVO_NO_MEMORY, memory could not be obtained";
    case KAVO_INVALID:
      return "KAVO_INVALID, a bad argument, no such table or no such key";
    case KAVO_UNSUPPORTED:
      return "KAVO_UNSUPPORTED, a table of the wrong kind";
    default:
      return "unknown status";
  }
}

std::string Describe(const char* call, unsigned table, int status) {
  return fmt::format("{} on table {} answered {} ({})", call, table, status, NameOf(status));
}

}  // namespace

void CheckStatus(const char* call, unsigned table, int status) {
  if (status != KAVO_SUCCESS) {
    throw KavoError(Describe(call, table, status));
  }
}

KavoTable::KavoTable(unsigned id, TableType type, unsigned size, unsigned valueLen)
    : m_id(id), m_type(type), m_valueLen(valueLen) {
  CheckStatus("KavoInitHashTable", id, KavoInitHashTable(id, size, valueLen, static_cast<unsigned>(type)));
}

KavoTable::~KavoTable() {
  const int status = KavoUninitHashTable(m_id);
  if (status != KAVO_SUCCESS) {
    fmt::print(stderr, "{}\n", Describe("KavoUninitHashTable", m_id, status));
  }
}

KavoTable::Entry KavoTable::LookupOrInsert(long key, unsigned occurrences) const {
  unsigned char* value = nullptr;
  unsigned valueLen = 0;
  unsigned isFind = 0;
  CheckStatus("KavoLookupOrInsert", m_id, KavoLookupOrInsert(m_id, key, &value, &valueLen, &isFind, occurrences));
  return {value, isFind != 0};
}

bool KavoTable::Insert(long key, unsigned char* value, unsigned count, InsertState state) const {
  const int status = KavoInsert(m_id, key, value, m_valueLen, count, static_cast<unsigned>(state));
  // Of the reasons for this code only the key's presence is left: the rest of the arguments is right by construction.
  if (status == KAVO_INVALID && key >= 0 && (value != nullptr || m_type == TableType::FILTER)) {
    return false;
  }
  CheckStatus("KavoInsert", m_id, status);
  return true;
}

void KavoTable::InsertOrUpdate(long key, unsigned char* value) const {
  CheckStatus("KavoInsertOrUpdate", m_id, KavoInsertOrUpdate(m_id, key, value, m_valueLen, 0));
}

unsigned char* KavoTable::Lookup(long key) const {
  unsigned char* value = nullptr;
  unsigned valueLen = 0;
  CheckStatus("KavoLookup", m_id, KavoLookup(m_id, key, &value, &valueLen));
  return value;
}

unsigned char* KavoTable::LookupForUpdate(long key) const {
  unsigned char* value = nullptr;
  unsigned valueLen = 0;
  CheckStatus("KavoLookupForUpdate", m_id, KavoLookupForUpdate(m_id, key, &value, &valueLen));
  return value;
}

void KavoTable::SetFilterFrequency(unsigned frequency) const {
  CheckStatus("KavoSetFilterFreq", m_id, KavoSetFilterFreq(m_id, frequency));
}

std::uint64_t KavoTable::CountEntries(bool admittedOnly) const {
  unsigned long long size = 0;
  unsigned valueLen = 0;
  CheckStatus("KavoGetHtSizeAndVl", m_id, KavoGetHtSizeAndVl(m_id, &size, &valueLen, admittedOnly));
  return size;
}

std::uint64_t KavoTable::PrepareValues() const {
  unsigned long long count = 0;
  CheckStatus("KavoPrepareMemForValues", m_id, KavoPrepareMemForValues(m_id, &count));
  return count;
}

unsigned char* KavoTable::PreparedValue(std::uint64_t index) const {
  unsigned char* value = nullptr;
  unsigned valueLen = 0;
  CheckStatus("KavoGetMemForValue", m_id, KavoGetMemForValue(m_id, index, &value, &valueLen));
  return value;
}

}  // namespace IncrementalExport
