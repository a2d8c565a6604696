#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "kavo.h"
#include "sharded_lookup/cluster.h"
#include "sharded_lookup/key_sets.h"
#include "sharded_lookup/library_log.h"
#include "sharded_lookup/workload.h"
#include "support/seed.h"

namespace ShardedLookup {
namespace {

constexpr unsigned SERVERS = 5;
constexpr unsigned THREADS = 3;
constexpr std::size_t KEYS = 5000;

std::vector<std::uint64_t> Spread(const KeySet& set) {
  const LibraryLog log;
  const Cluster cluster(SERVERS, set.keys.size());
  return StoreKeys(cluster, set.keys, THREADS);
}

TEST(ShardedLookup, KeySetsAreDistinctTableKeys) {
  const KeySet hostile = HostileKeys(KEYS, SERVERS);
  for (const KeySet& set : {DenseKeys(KEYS), RandomKeys(KEYS, ~Key{0}), hostile, HashedKeys(hostile)}) {
    std::vector<Key> keys = set.keys;
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(KEYS, keys.size());
    EXPECT_EQ(keys.end(), std::adjacent_find(keys.begin(), keys.end())) << set.name;
    EXPECT_LE(keys.back(), MAX_TABLE_KEY) << set.name;
  }
}

TEST(ShardedLookup, HostileKeysMeetOnOneServerAndHashingSpreadsThem) {
  const KeySet hostile = HostileKeys(KEYS, SERVERS);
  EXPECT_EQ((std::vector<std::uint64_t>{KEYS, 0, 0, 0, 0}), Spread(hostile));
  EXPECT_EQ(std::vector<std::uint64_t>(SERVERS, KEYS / SERVERS), Spread(DenseKeys(KEYS)));
  // Six standard deviations of keys that fall on servers at random.
  const double tolerance = 6.0 * std::sqrt(1.0 * KEYS / SERVERS * (1.0 - 1.0 / SERVERS));
  for (const KeySet& set : {RandomKeys(KEYS, 1), HashedKeys(hostile)}) {
    for (const std::uint64_t keys : Spread(set)) {
      EXPECT_NEAR(static_cast<double>(keys), 1.0 * KEYS / SERVERS, tolerance) << set.name;
    }
  }
}

TEST(ShardedLookup, VerificationPassesAndFindsEachKindOfFault) {
  const LibraryLog log;
  const std::vector<Key> keys = RandomKeys(KEYS, KavoTest::TestSeed()).keys;
  const Cluster cluster(SERVERS, KEYS);
  StoreKeys(cluster, keys, THREADS);
  const Verification clean = Verify(cluster, keys, THREADS);
  EXPECT_TRUE(clean.Passed());
  EXPECT_EQ(KEYS, clean.found);
  EXPECT_EQ(KEYS * (SERVERS - 1), clean.absent);

  // A key on a server too many, one with another's value, and one that was never stored.
  std::vector<Key> asked = keys;
  cluster.Table((keys[0] + 1) % SERVERS).Store(keys[0]);
  Key other = keys[2];
  const auto owner = static_cast<unsigned>(Cluster::FIRST_PS_ID + keys[1] % SERVERS);
  ASSERT_EQ(KAVO_SUCCESS,
            KavoUpdate(owner, static_cast<long>(keys[1]), reinterpret_cast<unsigned char*>(&other), sizeof(other)));
  asked.push_back(RandomKeys(KEYS + 1, 4242).keys[KEYS]);
  const Verification faulty = Verify(cluster, asked, THREADS);
  EXPECT_FALSE(faulty.Passed());
  EXPECT_EQ(1U, faulty.strays);
  EXPECT_EQ(1U, faulty.garbled);
  EXPECT_EQ(1U, faulty.lost);
  EXPECT_EQ(0U, faulty.misrouted);
}

TEST(ShardedLookup, AnErrorOfAThreadReachesTheCaller) {
  const LibraryLog log;
  const Cluster cluster(SERVERS, KEYS);
  std::vector<Key> keys = DenseKeys(KEYS).keys;
  keys[3000] = MAX_TABLE_KEY + 1;
  EXPECT_THROW(StoreKeys(cluster, keys, THREADS), KavoError);
}

}  // namespace
}  // namespace ShardedLookup
