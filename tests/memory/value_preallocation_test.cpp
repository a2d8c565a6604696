// The stock converted for values that a host writes before it inserts the keys.
#include <cstring>

#include "memory/memory_pool.h"
#include "memory/pool_test_support.h"

namespace Qen {
namespace {

using namespace PoolTest;

constexpr unsigned BLOCK_SIZE = 12;

class ValuePreallocation : public testing::TestWithParam<int> {
 protected:
  void Create(unsigned long long count) {
    m_pool = MakeHeapPtr<MemoryPool>(GetParam(), BLOCK_SIZE);
    ASSERT_EQ(m_pool->InitMemPool(count), KAVO_SUCCESS);
  }

  void Prepare() {
    unsigned long long count = 0;
    ASSERT_EQ(m_pool->PrepareMemForValues(count), KAVO_SUCCESS);
  }

  // Fetches block `index` and writes its value, 1000 + index.
  unsigned char* Fill(unsigned long long index) {
    unsigned char* block = nullptr;
    EXPECT_EQ(m_pool->GetMemForValues(index, block), KAVO_SUCCESS);
    const unsigned long long value = 1000 + index;
    std::memcpy(block + 4, &value, sizeof(value));
    return block;
  }

  // The value found in the block that a new key adopts; 0 when it was given a fresh one.
  unsigned long long Adopt() {
    const Taken taken = Take(*m_pool, MemKind::PREPARED);
    EXPECT_EQ(taken.ret, KAVO_SUCCESS);
    unsigned long long value = 0;
    std::memcpy(&value, taken.block + 4, sizeof(value));
    EXPECT_EQ(taken.kind, value == 0 ? MemKind::ORDINARY : MemKind::PREPARED);
    return value;
  }

  KavoTest::LogCapture m_log{SetLogSink};
  HeapPtr<MemoryPool> m_pool;
};
INSTANTIATE_TEST_SUITE_P(Ids, ValuePreallocation, testing::Values(1, 2000));

using Values = std::vector<unsigned long long>;

TEST_P(ValuePreallocation, NewKeysOfALoneThreadAdoptTheValuesInIndexOrder) {
  Create(100);
  Prepare();
  for (unsigned long long index = 100; index-- > 0;) {
    const unsigned char* const block = Fill(index);
    EXPECT_EQ(std::count(block, block + 4, 0), 4) << "the header stays 0";
  }
  for (unsigned long long i = 0; i < 100; ++i) {
    EXPECT_EQ(Adopt(), 1000 + i);
  }
  EXPECT_EQ(Adopt(), 0U);
}

TEST_P(ValuePreallocation, ConversionHappensOnceAndIsAskedForFirst) {
  MemoryPool empty(GetParam(), BLOCK_SIZE);
  unsigned long long count = 77;
  unsigned char* ptr = nullptr;
  EXPECT_EQ(empty.PrepareMemForValues(count), KAVO_NO_MEMORY);
  EXPECT_EQ(count, 77U);
  ExpectLine(m_log, KAVO_LOG_LEVEL_ERROR, "PrepareMemForValues", "PrepareMemForValues failed, count is 0!!");
  Create(10);
  EXPECT_EQ(m_pool->GetMemForValues(0, ptr), KAVO_NO_MEMORY);
  ExpectLine(m_log, KAVO_LOG_LEVEL_ERROR, "GetMemForValues",
             "GetMemForValues failed, please PrepareMemForValues first");
  EXPECT_EQ(m_pool->PrepareMemForValues(count), KAVO_SUCCESS);
  EXPECT_EQ(count, 10U);
  count = 0;
  EXPECT_EQ(m_pool->PrepareMemForValues(count), KAVO_INVALID);
  EXPECT_EQ(count, 10U);
  ExpectLine(m_log, KAVO_LOG_LEVEL_ERROR, "PrepareMemForValues",
             "PrepareMemForValues failed, repeatedly calling function");
  Fill(9);
  EXPECT_EQ(m_pool->GetMemForValues(10, ptr), KAVO_INVALID);
  ExpectLine(m_log, KAVO_LOG_LEVEL_ERROR, "GetMemForValues", "GetMemForValues failed, number lager(10) than init(10)");
  EXPECT_EQ(ptr, nullptr);
}

TEST_P(ValuePreallocation, BlocksThatAreHeldOrAskedForAsOrdinaryAreNotAdopted) {
  Create(4);
  Prepare();
  unsigned char* const first = Fill(0);
  const Taken ordinary = Take(*m_pool);
  EXPECT_EQ(ordinary.kind, MemKind::ORDINARY);
  ExpectFreshAndDisjoint({ordinary.block}, BLOCK_SIZE);
  EXPECT_EQ(SlotOf(ordinary.block, first, BLOCK_SIZE, 4), -1);
  EXPECT_EQ(Adopt(), 1000U);
  // Passing over the three that are held uses the thread's walk up.
  EXPECT_EQ(Adopt(), 0U);
  Fill(2);
  EXPECT_EQ(Adopt(), 0U);
  // Another thread, which starts afresh, finds what was released since.
  InNewThread([&] { EXPECT_EQ(Adopt(), 1002U); });
}

TEST_P(ValuePreallocation, IndexReleasedAheadOfTheWalkIsAdopted) {
  Create(8);
  Prepare();
  Fill(1);
  EXPECT_EQ(Adopt(), 1001U);
  Fill(0);  // behind the walk
  Fill(5);
  Fill(6);
  EXPECT_EQ(Adopt(), 1005U);
  EXPECT_EQ(Adopt(), 1006U);
  EXPECT_EQ(Adopt(), 0U);
}

TEST_P(ValuePreallocation, RepeatedFetchGivesTheSameBlockUntilItIsTaken) {
  Create(3);
  Prepare();
  unsigned char* const block = Fill(1);
  EXPECT_EQ(Fill(1), block);
  EXPECT_EQ(Adopt(), 1001U);
  unsigned char* ptr = nullptr;
  EXPECT_EQ(m_pool->GetMemForValues(1, ptr), KAVO_INVALID);
  EXPECT_EQ(ptr, nullptr);
  ExpectLine(m_log, KAVO_LOG_LEVEL_ERROR, "GetMemForValues", "GetMemForValues failed, index(1) is taken");
  // The refused fetch released nothing, not even to a thread that would still look at the slot.
  InNewThread([&] { EXPECT_EQ(Adopt(), 0U); });
}

TEST_P(ValuePreallocation, BlocksTakenBeforeTheConversionStayTheirEntries) {
  Create(6);
  std::vector<unsigned char*> entries;
  for (int i = 0; i < 2; ++i) {
    entries.push_back(Take(*m_pool).block);
    std::memset(entries.back(), 0xEE, BLOCK_SIZE);
  }
  Prepare();
  unsigned char* ptr = nullptr;
  EXPECT_EQ(m_pool->GetMemForValues(0, ptr), KAVO_INVALID);
  EXPECT_EQ(m_pool->GetMemForValues(1, ptr), KAVO_INVALID);
  for (unsigned long long index = 2; index < 6; ++index) {
    Fill(index);
  }
  Values adopted;
  for (int i = 0; i < 5; ++i) {
    adopted.push_back(Adopt());
  }
  EXPECT_EQ(adopted, (Values{1002, 1003, 1004, 1005, 0}));
  for (const unsigned char* const entry : entries) {
    EXPECT_EQ(std::count(entry, entry + BLOCK_SIZE, 0xEE), BLOCK_SIZE);
  }
}

#if KAVO_ADDRESS_SANITIZER
TEST_P(ValuePreallocation, SanitizerCatchesAWritePastAPreparedValue) {
  Create(2);
  Prepare();
  volatile unsigned char* const block = Fill(0);
  EXPECT_DEATH(block[BLOCK_SIZE] = 1, "use-after-poison");
}
#endif

}  // namespace
}  // namespace Qen
