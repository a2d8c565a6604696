// Parameter servers in one process: each is a Kavo table, and the partition map says which of them owns a key. In a
// real deployment each table stands in a process of its own and the calls on it travel; the map and the grouping are
// the same.
//
// Every status code is checked: a call that fails throws KavoError, which names the call and the code.
#pragma once

#include <cstddef>
#include <deque>
#include <span>
#include <stdexcept>
#include <vector>

namespace ShardedLookup {

using Key = unsigned long long;

class KavoError : public std::runtime_error {
 public:
  KavoError(const char* call, int status);
};

// One server's table, for the length of a scope. A value is 8 bytes: here the key itself, so that a mix-up shows.
class ServerTable {
 public:
  ServerTable(unsigned id, unsigned size);
  ServerTable(const ServerTable&) = delete;
  ServerTable& operator=(const ServerTable&) = delete;
  ~ServerTable();

  void Store(Key key) const;

  enum class Answer { ABSENT, PRESENT, OTHER_VALUE };
  Answer Find(Key key) const;

 private:
  const unsigned m_id;
};

// The partition map, for the length of a scope.
class Partition {
 public:
  explicit Partition(const std::vector<unsigned>& psIds);
  Partition(const Partition&) = delete;
  Partition& operator=(const Partition&) = delete;
  ~Partition();

  // psIds[i] becomes the id of the server that owns keys[i]: one call and one lock for all of them.
  void Route(std::span<const Key> keys, std::span<unsigned> psIds) const;
};

class Cluster {
 public:
  // A server's psId is the id of its table: FIRST_PS_ID, FIRST_PS_ID + 1, ... Ids below 1024 are the fast ones.
  static constexpr unsigned FIRST_PS_ID = 101;
  static constexpr unsigned MAX_SERVERS = 512;

  Cluster(unsigned servers, std::size_t keys);

  unsigned Servers() const { return static_cast<unsigned>(m_tables.size()); }
  // By index, 0 to Servers() - 1.
  const ServerTable& Table(std::size_t server) const { return m_tables[server]; }
  const Partition& Map() const { return m_map; }

  static std::size_t ServerOf(unsigned psId) { return psId - FIRST_PS_ID; }

 private:
  std::deque<ServerTable> m_tables;
  Partition m_map;
};

}  // namespace ShardedLookup
