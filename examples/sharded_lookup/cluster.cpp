#include "sharded_lookup/cluster.h"

#include <fmt/format.h>
#include <kavo.h>

#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>

namespace ShardedLookup {
namespace {

// A name for the map, compared when it is installed again. It has no part in the mapping.
constexpr unsigned PARTITION_NUM = 1;

std::string Describe(const char* call, int status) {
  const char* name = "unknown status";
  switch (status) {
    case KAVO_FAILED:
      name = "KAVO_FAILED";
      break;
    case KAVO_EXISTS:
      name = "KAVO_EXISTS";
      break;
    case KAVO_NO_MEMORY:
      name = "KAVO_NO_MEMORY";
      break;
    case KAVO_INVALID:
      name = "KAVO_INVALID";
      break;
    case KAVO_UNSUPPORTED:
      name = "KAVO_UNSUPPORTED";
      break;
    default:
      break;
  }
  return fmt::format("{} answered {} ({})", call, status, name);
}

void Check(const char* call, int status) {
  if (status != KAVO_SUCCESS) {
    throw KavoError(call, status);
  }
}

// For destructors, which must not throw.
void Report(const char* call, int status) {
  if (status != KAVO_SUCCESS) {
    fmt::print(stderr, "sharded_lookup: {}\n", Describe(call, status));
  }
}

std::vector<unsigned> PsIds(unsigned servers) {
  std::vector<unsigned> psIds(servers);
  std::iota(psIds.begin(), psIds.end(), Cluster::FIRST_PS_ID);
  return psIds;
}

}  // namespace

KavoError::KavoError(const char* call, int status) : std::runtime_error(Describe(call, status)) {}

ServerTable::ServerTable(unsigned id, unsigned size) : m_id(id) {
  Check("KavoInitHashTable", KavoInitHashTable(id, size, sizeof(Key), KAVO_TABLE_TYPE_BASIC));
}

ServerTable::~ServerTable() {
  Report("KavoUninitHashTable", KavoUninitHashTable(m_id));
}

void ServerTable::Store(Key key) const {
  unsigned char* value = nullptr;
  unsigned length = 0;
  unsigned isFind = 0;
  Check("KavoLookupOrInsert", KavoLookupOrInsert(m_id, static_cast<long>(key), &value, &length, &isFind, 0));
  // Exactly one thread creates a key, so exactly one writes its value.
  if (isFind == 0) {
    std::memcpy(value, &key, sizeof(key));
  }
}

ServerTable::Answer ServerTable::Find(Key key) const {
  unsigned char* value = nullptr;
  unsigned length = 0;
  const int status = KavoLookup(m_id, static_cast<long>(key), &value, &length);
  if (status == KAVO_INVALID) {
    return Answer::ABSENT;
  }
  Check("KavoLookup", status);
  return length == sizeof(key) && std::memcmp(value, &key, sizeof(key)) == 0 ? Answer::PRESENT : Answer::OTHER_VALUE;
}

Partition::Partition(const std::vector<unsigned>& psIds) {
  Check("InitPartitionMap", InitPartitionMap(PARTITION_NUM, static_cast<unsigned>(psIds.size()), psIds.data()));
}

Partition::~Partition() {
  Report("UninitPartitionMap", UninitPartitionMap());
}

void Partition::Route(std::span<const Key> keys, std::span<unsigned> psIds) const {
  unsigned* array = psIds.data();
  Check("GetBatchPsIds", GetBatchPsIds(keys.data(), &array, static_cast<unsigned>(keys.size())));
}

Cluster::Cluster(unsigned servers, std::size_t keys) : m_map(PsIds(servers)) {
  // Room for an even share; a server that gets more grows.
  const auto share = static_cast<unsigned>(keys / servers + 1);
  for (const unsigned psId : PsIds(servers)) {
    m_tables.emplace_back(psId, share);
  }
}

}  // namespace ShardedLookup
