#include "ctr_training/kavo_table.h"

#include <fmt/format.h>
#include <kavo.h>

#include <cstdio>
#include <string>

namespace CtrTraining {
namespace {

std::string Describe(const char* call, unsigned table, int status) {
  const char* name = "unknown status";
  switch (status) {
    case KAVO_FAILED:
      name = "KAVO_FAILED, a wait passed its limit or a lock failed";
      break;
    case KAVO_EXISTS:
      name = "KAVO_EXISTS, the table id is in use";
      break;
    case KAVO_NO_MEMORY:
      name = "KAVO_NO_MEMORY, memory could not be obtained";
      break;
    case KAVO_INVALID:
      name = "KAVO_INVALID, a bad argument or no such table";
      break;
    case KAVO_UNSUPPORTED:
      name = "KAVO_UNSUPPORTED, a table of the wrong kind";
      break;
    default:
      break;
  }
  return fmt::format("{} on table {} answered {} ({})", call, table, status, name);
}

}  // namespace

KavoTable::KavoTable(unsigned id, unsigned size, unsigned floatsPerValue, unsigned admitAt) : m_id(id) {
  const auto valueLen = static_cast<unsigned>(floatsPerValue * sizeof(float));
  const bool filters = admitAt > 1;
  int status = KavoInitHashTable(id, size, valueLen, filters ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC);
  if (status != KAVO_SUCCESS) {
    throw KavoError(Describe("KavoInitHashTable", id, status));
  }
  if (filters) {
    status = KavoSetFilterFreq(id, admitAt);
    if (status != KAVO_SUCCESS) {
      KavoUninitHashTable(id);
      throw KavoError(Describe("KavoSetFilterFreq", id, status));
    }
  }
}

KavoTable::~KavoTable() {
  const int status = KavoUninitHashTable(m_id);
  if (status != KAVO_SUCCESS) {
    fmt::print(stderr, "{}\n", Describe("KavoUninitHashTable", m_id, status));
  }
}

KavoTable::Entry KavoTable::LookupOrInsert(long key, unsigned offers) const {
  unsigned char* value = nullptr;
  unsigned valueLen = 0;
  unsigned isFind = 0;
  const int status = KavoLookupOrInsert(m_id, key, &value, &valueLen, &isFind, offers);
  if (status != KAVO_SUCCESS) {
    throw KavoError(fmt::format("{} for key {}", Describe("KavoLookupOrInsert", m_id, status), key));
  }
  // Values are aligned to 8 bytes, and all-zero bytes are floats of value 0.
  return {reinterpret_cast<float*>(value), isFind == 0};
}

std::uint64_t KavoTable::KeyCount(bool admittedOnly) const {
  unsigned long long count = 0;
  unsigned valueLen = 0;
  const int status = KavoGetHtSizeAndVl(m_id, &count, &valueLen, admittedOnly);
  if (status != KAVO_SUCCESS) {
    throw KavoError(Describe("KavoGetHtSizeAndVl", m_id, status));
  }
  return count;
}

KavoTableStats KavoTable::Stats() const {
  KavoTableStats stats{};
  stats.size = sizeof(stats);
  const int status = KavoGetTableStats(m_id, &stats);
  if (status != KAVO_SUCCESS) {
    throw KavoError(Describe("KavoGetTableStats", m_id, status));
  }
  return stats;
}

}  // namespace CtrTraining
