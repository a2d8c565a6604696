#include "sharded_lookup/key_sets.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

namespace ShardedLookup {
namespace {

Key HashKey(Key key) {
  return static_cast<Key>(kavo::MixKey(static_cast<long>(key)));
}

}  // namespace

KeySet DenseKeys(std::size_t count) {
  KeySet set{"dense", "0, 1, 2, ...", std::vector<Key>(count)};
  std::iota(set.keys.begin(), set.keys.end(), Key{0});
  return set;
}

KeySet RandomKeys(std::size_t count, Key seed) {
  KeySet set{"random", "over the whole range of keys", std::vector<Key>(count)};
  // Hashes of a counter: distinct, because the hash is one-to-one.
  set.spread = true;
  Key counter = HashKey(seed & MAX_TABLE_KEY);
  for (Key& key : set.keys) {
    key = HashKey(counter);
    counter = (counter + 1) & MAX_TABLE_KEY;
  }
  return set;
}

KeySet HostileKeys(std::size_t count, unsigned servers) {
  KeySet set{"hostile", fmt::format("multiples of {}, the number of servers", servers), std::vector<Key>(count)};
  for (std::size_t i = 0; i < count; ++i) {
    set.keys[i] = static_cast<Key>(i) * servers;
  }
  return set;
}

KeySet HashedKeys(const KeySet& set) {
  KeySet hashed{set.name + ", hashed", "the same keys, hashed one-to-one before they are routed and stored", set.keys};
  hashed.spread = true;
  std::transform(hashed.keys.begin(), hashed.keys.end(), hashed.keys.begin(), HashKey);
  return hashed;
}

}  // namespace ShardedLookup
