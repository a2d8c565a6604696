// Parameter servers in one process: each is a Kavo table, and the partition map says which of them owns a key. In a
// real deployment each table stands in a process of its own and the calls on it travel; the map and the grouping are
// the same.
//
// A call that fails throws kavo::Error.
#pragma once

#include <cstddef>
#include <kavo.hpp>
#include <vector>

namespace ShardedLookup {

using Key = unsigned long long;

// One server's values are 8 bytes: here the key itself, so that a mix-up shows.
void Store(const kavo::Table& server, Key key);

enum class Answer { ABSENT, PRESENT, OTHER_VALUE };
Answer Find(const kavo::Table& server, Key key);

class Cluster {
 public:
  // A server's psId is the id of its table: FIRST_PS_ID, FIRST_PS_ID + 1, ... Ids below 1024 are the fast ones.
  static constexpr unsigned FIRST_PS_ID = 101;
  static constexpr unsigned MAX_SERVERS = 512;

  Cluster(unsigned servers, std::size_t keys);

  unsigned Servers() const { return static_cast<unsigned>(m_tables.size()); }
  // By index, 0 to Servers() - 1.
  const kavo::Table& Table(std::size_t server) const { return m_tables[server]; }
  const kavo::PartitionMap& Map() const { return m_map; }

  static std::size_t ServerOf(unsigned psId) { return psId - FIRST_PS_ID; }

 private:
  std::vector<kavo::Table> m_tables;
  kavo::PartitionMap m_map;
};

}  // namespace ShardedLookup
