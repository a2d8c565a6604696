// The keys that are spread over the servers, and the hash that spreads them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "sharded_lookup/cluster.h"

namespace ShardedLookup {

// Table keys lie between 0 and 2^63 - 1.
inline constexpr Key MAX_TABLE_KEY = (Key{1} << 63) - 1;

// A one-to-one map of the table keys in which each bit of the key reaches the low bits of the result: those that choose
// the server, and those that choose the bucket in its table. One-to-one, so that no two keys become one: each step (an
// addition, a multiplication by an odd number, an exclusive or with the high bits) can be undone modulo 2^63.
constexpr Key HashKey(Key key) {
  key = (key + 0x9E3779B97F4A7C15) & MAX_TABLE_KEY;
  key = ((key ^ (key >> 30)) * 0xBF58476D1CE4E5B9) & MAX_TABLE_KEY;
  key = ((key ^ (key >> 27)) * 0x94D049BB133111EB) & MAX_TABLE_KEY;
  return key ^ (key >> 31);
}

struct KeySet {
  std::string name;
  std::string note;
  std::vector<Key> keys;  // distinct
};

KeySet DenseKeys(std::size_t count);
KeySet RandomKeys(std::size_t count, Key seed);
// Multiples of the number of servers: the remainder is always 0.
KeySet HostileKeys(std::size_t count, unsigned servers);
// The same keys, hashed before anything else. From there on the hash is the key, in the map and in the tables.
KeySet HashedKeys(const KeySet& set);

}  // namespace ShardedLookup
