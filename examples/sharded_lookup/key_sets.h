// The keys that are spread over the servers.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "sharded_lookup/cluster.h"

namespace ShardedLookup {

// Table keys lie between 0 and 2^63 - 1.
inline constexpr Key MAX_TABLE_KEY = (Key{1} << 63) - 1;

struct KeySet {
  std::string name;
  std::string note;
  std::vector<Key> keys;  // distinct
  bool spread = false;    // like random numbers
};

KeySet DenseKeys(std::size_t count);
KeySet RandomKeys(std::size_t count, Key seed);
// Multiples of the number of servers: the remainder is always 0.
KeySet HostileKeys(std::size_t count, unsigned servers);
// The same keys, hashed before anything else, with the library's mixer, which is one-to-one. From there on the hash is
// the key, in the map and in the tables.
KeySet HashedKeys(const KeySet& set);

}  // namespace ShardedLookup
