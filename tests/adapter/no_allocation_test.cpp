// The key functions do not allocate: not for a key that is there, nor for a new one while the pool has blocks in stock
// and the table has room. Every allocation of the process is counted, not only the library's own.
#include <gtest/gtest.h>

#include <atomic>

#include "kavo.h"
#include "support/replaced_new.h"

namespace {
std::atomic<long> g_allocations{0};
}

bool IsGranted() noexcept {
  ++g_allocations;
  return true;
}

namespace {

constexpr unsigned LEN = 16;
constexpr long KEYS = 500;

// Allocations while `call` runs for keys 0 to KEYS - 1.
template <class Call>
long Count(Call call) {
  int failures = 0;
  const long before = g_allocations;
  for (long key = 0; key < KEYS; ++key) {
    failures += call(key) != KAVO_SUCCESS ? 1 : 0;
  }
  const long after = g_allocations;
  EXPECT_EQ(0, failures);
  return after - before;
}

class NoAllocation : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Ids, NoAllocation, testing::Values(1U, 5000U));

TEST_P(NoAllocation, ForKeysThatArePresentNorForNewOnesWithBlocksInStock) {
  const unsigned table = GetParam();
  unsigned char value[LEN] = {};
  unsigned char* address = nullptr;
  unsigned len = 0;
  unsigned found = 0;
  const auto lookUpOrInsert = [&](long key) { return KavoLookupOrInsert(table, key, &address, &len, &found, 1); };
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(table, 1'000, LEN, KAVO_TABLE_TYPE_BASIC));
  // A thread's first insert into a table may set up what it keeps for it.
  ASSERT_EQ(KAVO_SUCCESS, KavoInsert(table, KEYS, value, LEN, 0, 0));
  EXPECT_EQ(0, Count([&](long key) {
              return key % 2 == 0 ? KavoInsert(table, key, value, LEN, 0, 0)
                                  : KavoInsertOrUpdate(table, key, value, LEN, 0);
            }));
  EXPECT_EQ(0, Count([&](long key) { return KavoLookup(table, key, &address, &len); }));
  EXPECT_EQ(0, Count([&](long key) { return KavoLookupForUpdate(table, key, &address, &len); }));
  EXPECT_EQ(0, Count([&](long key) { return KavoUpdate(table, key, value, LEN); }));
  EXPECT_EQ(0, Count([&](long key) { return KavoInsertOrUpdate(table, key, value, LEN, 0); }));
  EXPECT_EQ(0, Count(lookUpOrInsert));
  // Look-up-or-insert of new keys gets fresh blocks, as nothing is prepared: the pool makes them many at a time.
  const long allocations = Count([&](long key) { return lookUpOrInsert(key + 2 * KEYS); });
  EXPECT_GT(allocations, 0) << "they are not counted";
  EXPECT_LT(allocations, KEYS / 20);
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(table));

  // A filter table counts.
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(table, 8, LEN, KAVO_TABLE_TYPE_FILTER));
  ASSERT_EQ(KAVO_SUCCESS, KavoSetFilterFreq(table, 2 * KEYS));
  ASSERT_EQ(KAVO_SUCCESS, lookUpOrInsert(1));
  EXPECT_EQ(0, Count([&](long) { return lookUpOrInsert(1); }));
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(table));
}

}  // namespace
