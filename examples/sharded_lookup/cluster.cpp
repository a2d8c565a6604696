#include "sharded_lookup/cluster.h"

#include <numeric>

namespace ShardedLookup {
namespace {

// A name for the map, compared when it is installed again. It has no part in the mapping.
constexpr unsigned PARTITION_NUM = 1;

std::vector<unsigned> PsIds(unsigned servers) {
  std::vector<unsigned> psIds(servers);
  std::iota(psIds.begin(), psIds.end(), Cluster::FIRST_PS_ID);
  return psIds;
}

}  // namespace

void Store(const kavo::Table& server, Key key) {
  const auto [row, created] = server.LookupOrInsert<Key>(static_cast<long>(key));
  // Exactly one thread creates a key, so exactly one writes its value.
  if (created) {
    row.front() = key;
  }
}

Answer Find(const kavo::Table& server, Key key) {
  const auto row = server.TryLookup<Key>(static_cast<long>(key));
  if (!row) {
    return Answer::ABSENT;
  }
  return row->front() == key ? Answer::PRESENT : Answer::OTHER_VALUE;
}

Cluster::Cluster(unsigned servers, std::size_t keys) : m_map(PARTITION_NUM, PsIds(servers)) {
  // Room for an even share; a server that gets more grows.
  const auto share = static_cast<unsigned>(keys / servers + 1);
  for (const unsigned psId : PsIds(servers)) {
    m_tables.emplace_back(psId, share, sizeof(Key));
  }
}

}  // namespace ShardedLookup
