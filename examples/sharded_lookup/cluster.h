// Parameter servers in one process: each is a Kavo table, and the partition map says which of them owns a key. In a
// real deployment each table stands in a process of its own and the calls on it travel; the map and the grouping are
// the same.
//
// A call that fails throws kavo::Error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <kavo.hpp>
#include <span>
#include <vector>

namespace ShardedLookup {

using Key = unsigned long long;

struct Verification {
  std::uint64_t found = 0;      // on the owner, with the right value
  std::uint64_t misrouted = 0;  // the map names another server than the remainder does
  std::uint64_t lost = 0;       // not on the owner
  std::uint64_t garbled = 0;    // on the owner, with another value
  std::uint64_t strays = 0;     // found on a server that is not the owner
  std::uint64_t absent = 0;     // lookups on other servers that missed, as they should

  bool Passed() const { return misrouted + lost + garbled + strays == 0; }
};

class Cluster {
 public:
  // A server's psId is the id of its table: FIRST_PS_ID, FIRST_PS_ID + 1, ... Ids below 1024 are the fast ones.
  static constexpr unsigned FIRST_PS_ID = 101;
  static constexpr unsigned MAX_SERVERS = 512;

  Cluster(unsigned servers, std::size_t keys);

  // Each thread takes a batch of keys, asks the map for all of their owners at once, groups the keys by owner and hands
  // each server its group.
  void Store(std::span<const Key> keys, unsigned threads) const;
  // How many keys each server got.
  std::vector<std::uint64_t> Stored() const;
  // Looks each key up on every server.
  Verification Verify(std::span<const Key> keys, unsigned threads) const;

 private:
  template <class Work>
  void ForBatches(std::span<const Key> keys, unsigned threads, const Work& work) const;
  void VerifyKey(Key key, unsigned psId, Verification& result) const;

  std::vector<kavo::Table> m_tables;
  kavo::PartitionMap m_map;
};

}  // namespace ShardedLookup
