// What the threads do: store keys on the servers that own them, then check where each key is.
#pragma once

#include <cstdint>
#include <vector>

#include "sharded_lookup/cluster.h"

namespace ShardedLookup {

// Each thread takes a batch of keys, asks the map for all of their owners at once, groups the keys by owner and hands
// each server its group. Returns how many keys each server got.
std::vector<std::uint64_t> StoreKeys(const Cluster& cluster, const std::vector<Key>& keys, unsigned threads);

struct Verification {
  std::uint64_t found = 0;      // on the owner, with the right value
  std::uint64_t misrouted = 0;  // the map names another server than the remainder does
  std::uint64_t lost = 0;       // not on the owner
  std::uint64_t garbled = 0;    // on the owner, with another value
  std::uint64_t strays = 0;     // found on a server that is not the owner
  std::uint64_t absent = 0;     // lookups on other servers that missed, as they should

  bool Passed() const { return misrouted + lost + garbled + strays == 0; }
};

// Looks each key up on every server.
Verification Verify(const Cluster& cluster, const std::vector<Key>& keys, unsigned threads);

}  // namespace ShardedLookup
