// The key functions do not allocate: not for a key that is there, nor for a new one while the pool has blocks in stock
// and the table has room. Every allocation of the process is counted, not only the library's own.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "kavo.h"

namespace {
std::atomic<long> g_allocations{0};
}

// Not inlined: a compiler that sees into one of a pair takes malloc and delete, or new and free, for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  ++g_allocations;
  return std::malloc(bytes);
}
[[gnu::noinline]] void* operator new(std::size_t bytes) {
  if (void* memory = operator new(bytes, std::nothrow)) {
    return memory;
  }
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

class NoAllocation : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr unsigned LEN = 16;
  static constexpr long KEYS = 500;

  void SetUp() override {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(m_table, 1'000, LEN, KAVO_TABLE_TYPE_BASIC));
    // A thread's first insert into a table may set up what it keeps for it.
    ASSERT_EQ(KAVO_SUCCESS, KavoInsert(m_table, KEYS, m_value, LEN, 0, 0));
  }
  void TearDown() override { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(m_table)); }

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
  int LookupOrInsert(long key) { return KavoLookupOrInsert(m_table, key, &m_address, &m_len, &m_found, 0); }

  const unsigned m_table = GetParam();
  unsigned char m_value[LEN] = {};
  unsigned char* m_address = nullptr;
  unsigned m_len = 0;
  unsigned m_found = 0;
};
INSTANTIATE_TEST_SUITE_P(Ids, NoAllocation, testing::Values(1U, 5000U));

TEST_P(NoAllocation, ForNewKeysWithBlocksInStockNorForPresentOnes) {
  EXPECT_EQ(0, Count([&](long key) {
              return key % 2 == 0 ? KavoInsert(m_table, key, m_value, LEN, 0, 0)
                                  : KavoInsertOrUpdate(m_table, key, m_value, LEN, 0);
            }));
  EXPECT_EQ(0, Count([&](long key) { return KavoLookup(m_table, key, &m_address, &m_len); }));
  EXPECT_EQ(0, Count([&](long key) { return KavoLookupForUpdate(m_table, key, &m_address, &m_len); }));
  EXPECT_EQ(0, Count([&](long key) { return KavoUpdate(m_table, key, m_value, LEN); }));
  EXPECT_EQ(0, Count([&](long key) { return KavoInsertOrUpdate(m_table, key, m_value, LEN, 0); }));
  EXPECT_EQ(0, Count([&](long key) { return LookupOrInsert(key); }));
}

// Nothing is prepared, so look-up-or-insert gets fresh blocks: the pool makes them many at a time.
TEST_P(NoAllocation, ButForRunsOfFreshBlocks) {
  EXPECT_LT(Count([&](long key) { return LookupOrInsert(key); }), KEYS / 20);
}

TEST(NoAllocationInAFilterTable, ForCountingAPresentKey) {
  unsigned char* address = nullptr;
  unsigned len = 0;
  unsigned found = 0;
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(2, 8, 8, KAVO_TABLE_TYPE_FILTER));
  ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(2, 1, &address, &len, &found, 1));
  const long before = g_allocations;
  for (int i = 0; i < 90; ++i) {
    ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(2, 1, &address, &len, &found, 1));
  }
  EXPECT_EQ(before, g_allocations);
  EXPECT_EQ(nullptr, address);
  ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(2));
}

TEST(AllocationCount, SeesAllocations) {
  const long before = g_allocations;
  ::operator delete(::operator new(1));
  EXPECT_EQ(before + 1, g_allocations);
}

}  // namespace
