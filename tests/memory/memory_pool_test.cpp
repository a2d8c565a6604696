// The order, contents and layout of the blocks that one pool hands out, and what happens without memory.
#include "memory/memory_pool.h"

#include <array>
#include <climits>

#include "memory/pool_test_support.h"
#include "platform/test_hooks.h"
#include "support/fault_loop.h"

namespace Qen {
namespace {

using namespace PoolTest;

// The two places where positions are kept must not differ in anything else.
class MemoryPoolOfId : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Ids, MemoryPoolOfId, testing::Values(0, 1023, 1024, INT_MAX, -1, INT_MIN));

TEST_P(MemoryPoolOfId, LoneThreadGetsTheStockInSlotOrderThenFreshBlocks) {
  constexpr unsigned BLOCK_SIZE = 24;
  constexpr unsigned long long COUNT = 50;
  MemoryPool pool(GetParam(), BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(COUNT), KAVO_SUCCESS);
  std::vector<unsigned char*> blocks;
  for (unsigned long long i = 0; i < 2 * COUNT; ++i) {
    const Taken taken = Take(pool);
    ASSERT_EQ(taken.ret, KAVO_SUCCESS);
    EXPECT_EQ(taken.kind, MemKind::ORDINARY);
    blocks.push_back(taken.block);
    EXPECT_EQ(SlotOf(taken.block, blocks[0], BLOCK_SIZE, COUNT), i < COUNT ? static_cast<long long>(i) : -1);
  }
  ExpectFreshAndDisjoint(blocks, BLOCK_SIZE);
}

TEST_P(MemoryPoolOfId, ThreadsStartAtSpreadOffsetsAndSkipTakenSlots) {
  constexpr unsigned BLOCK_SIZE = 12;
  constexpr unsigned long long COUNT = 64;
  MemoryPool pool(GetParam(), BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(COUNT), KAVO_SUCCESS);
  // Offsets 0, S (that is 0, taken), S/2, 3S/4, S/4, 3S/8, 5S/8, 7S/8, S/8, 3S/16.
  constexpr std::array<long long, 10> FIRST_SLOTS{0, 1, 32, 48, 16, 24, 40, 56, 8, 12};
  const unsigned char* slot0 = nullptr;
  for (const long long slot : FIRST_SLOTS) {
    InNewThread([&] {
      const Taken taken = Take(pool);
      slot0 = slot0 == nullptr ? taken.block : slot0;
      EXPECT_EQ(SlotOf(taken.block, slot0, BLOCK_SIZE, COUNT), slot);
    });
  }
  // The eleventh starts at 5S/16, goes round once, and passes over everything that the others have.
  InNewThread([&] {
    std::vector<long long> expected;
    for (long long i = 0; i < 64; ++i) {
      const long long slot = (20 + i) % 64;
      if (std::find(FIRST_SLOTS.begin(), FIRST_SLOTS.end(), slot) == FIRST_SLOTS.end()) {
        expected.push_back(slot);
      }
    }
    expected.push_back(-1);
    std::vector<long long> slots;
    while (slots.size() < expected.size()) {
      slots.push_back(SlotOf(Take(pool).block, slot0, BLOCK_SIZE, COUNT));
    }
    EXPECT_EQ(slots, expected);
  });
}

TEST(MemoryPool, OffsetsInTinyStocksStayInsideAndReachEverySlot) {
  for (unsigned long long count = 1; count <= 9; ++count) {
    MemoryPool pool(3, 8);
    ASSERT_EQ(pool.InitMemPool(count), KAVO_SUCCESS);
    std::vector<unsigned char*> blocks;
    for (int thread = 0; thread < 20; ++thread) {
      InNewThread([&] { blocks.push_back(Take(pool).block); });
    }
    ExpectFreshAndDisjoint(blocks, 8);
    const auto inStock = std::count_if(blocks.begin(), blocks.end(), [&](const unsigned char* block) {
      return SlotOf(block, blocks[0], 8, count) >= 0;
    });
    EXPECT_EQ(inStock, static_cast<std::ptrdiff_t>(count));
  }
}

TEST(MemoryPool, OnlyTheMatchingKindDrawsOnTheStock) {
  MemoryPool pool(4, 12);
  ASSERT_EQ(pool.InitMemPool(4), KAVO_SUCCESS);
  const Taken wantedPrepared = Take(pool, MemKind::PREPARED);
  EXPECT_EQ(wantedPrepared.kind, MemKind::ORDINARY);
  const Taken wantedUnknown = Take(pool, static_cast<MemKind>(7));
  EXPECT_EQ(wantedUnknown.kind, MemKind::ORDINARY);
  // Neither used a slot: the stock still has all four.
  std::vector<unsigned char*> blocks{wantedPrepared.block, wantedUnknown.block};
  const unsigned char* const slot0 = Take(pool).block;
  for (long long slot = 1; slot < 4; ++slot) {
    blocks.push_back(Take(pool).block);
    EXPECT_EQ(SlotOf(blocks.back(), slot0, 12, 4), slot);
  }
  EXPECT_EQ(SlotOf(wantedPrepared.block, slot0, 12, 4), -1);
  EXPECT_EQ(SlotOf(wantedUnknown.block, slot0, 12, 4), -1);
  ExpectFreshAndDisjoint(blocks, 12);
}

TEST(MemoryPool, ValuesOfEveryLengthAreAlignedAndDisjoint) {
  for (const unsigned valueLen : {1U, 3U, 4U, 5U, 8U, 11U, 12U, 13U, 64U, 1000U, 70000U, 5U << 20}) {
    const unsigned blockSize = valueLen + 4;
    MemoryPool pool(5, blockSize);
    EXPECT_EQ(pool.BlockSize(), blockSize);
    ASSERT_EQ(pool.InitMemPool(5), KAVO_SUCCESS);
    std::vector<unsigned char*> blocks;
    for (int i = 0; i < (valueLen > 100000 ? 9 : 100); ++i) {
      blocks.push_back(Take(pool).block);
      ASSERT_NE(blocks.back(), nullptr);
    }
    ExpectFreshAndDisjoint(blocks, blockSize);
    // A block filled to its last byte leaves the others alone.
    std::fill_n(blocks[1], blockSize, static_cast<unsigned char>(0xFF));
    std::fill_n(blocks[7], blockSize, static_cast<unsigned char>(0xFF));
    blocks.erase(blocks.begin() + 7);
    blocks.erase(blocks.begin() + 1);
    ExpectFreshAndDisjoint(blocks, blockSize);
  }
}

TEST(MemoryPool, LongestValuesGetABlockEach) {
  constexpr unsigned BLOCK_SIZE = 4294967295U;
  MemoryPool pool(6, BLOCK_SIZE);
  const Taken first = Take(pool);
  const Taken second = Take(pool);
  if (first.ret == KAVO_NO_MEMORY) {
    GTEST_SKIP() << "the machine has less memory than one such value";
  }
  ASSERT_EQ(second.ret, KAVO_SUCCESS);
  EXPECT_GE(std::max(first.block, second.block) - std::min(first.block, second.block), BLOCK_SIZE);
  for (unsigned char* const block : {first.block, second.block}) {
    EXPECT_EQ(block[BLOCK_SIZE - 1], 0);
    block[BLOCK_SIZE - 1] = 1;
  }
}

TEST(MemoryPool, StockIsNotAllocatedBlockByBlock) {
  MemoryPool pool(7, 68);
  const unsigned long long before = TestHooks::AllocationsSeen();
  ASSERT_EQ(pool.InitMemPool(10'000'000), KAVO_SUCCESS);
  Take(pool);
  EXPECT_LE(TestHooks::AllocationsSeen() - before, 4U);
}

TEST(MemoryPool, BadStockSizesAreRefusedAndLeaveAUsablePool) {
  KavoTest::LogCapture log(SetLogSink);
  MemoryPool pool(8, 12);
  EXPECT_EQ(pool.InitMemPool(0), KAVO_INVALID);
  ExpectLine(log, KAVO_LOG_LEVEL_ERROR, "InitMemPool", "InitMemPool failed, count is 0!!");
  // The whole address space, just past it after multiplication, and merely more than any machine has.
  for (const unsigned long long count : {ULLONG_MAX, ULLONG_MAX / 16 + 2, 1ULL << 50}) {
    EXPECT_EQ(pool.InitMemPool(count), KAVO_NO_MEMORY);
    ExpectNoMemoryLine(log, "InitMemPool");
  }
  EXPECT_EQ(Take(pool).ret, KAVO_SUCCESS);
  ASSERT_EQ(pool.InitMemPool(2), KAVO_SUCCESS);
  const unsigned char* const slot0 = Take(pool).block;
  EXPECT_EQ(SlotOf(Take(pool).block, slot0, 12, 2), 1);
  // A second stock would take the blocks of the first away from their entries.
  EXPECT_EQ(pool.InitMemPool(2), KAVO_INVALID);
  ExpectLine(log, KAVO_LOG_LEVEL_ERROR, "InitMemPool", "InitMemPool failed, repeatedly calling function");
  EXPECT_EQ(*slot0, 0);
}

TEST(MemoryPool, AnyOneFailedAllocationCostsOneCallAtMostAndNothingLeaks) {
  KavoTest::LogCapture log(SetLogSink);
  const unsigned long long runs = KavoTest::ForEachFailingAllocation([&] {
    const long long heapBefore = TestHooks::HeapBytesInUse();
    const long long mappedBefore = TestHooks::MappedBytesInUse();
    {
      MemoryPool pool(11, 1004);
      unsigned failures = 0;
      while (pool.InitMemPool(8) != KAVO_SUCCESS) {
        ++failures;
      }
      std::vector<unsigned char*> blocks;
      while (blocks.size() < 3000) {
        const Taken taken = Take(pool);
        if (taken.ret == KAVO_SUCCESS) {
          blocks.push_back(taken.block);
          continue;
        }
        ++failures;
        EXPECT_EQ(taken.ret, KAVO_NO_MEMORY);
      }
      ExpectFreshAndDisjoint(blocks, 1004);
      EXPECT_LE(failures, KavoTest::FaultWasInjected() ? 1U : 0U);  // none where a smaller chunk would do
      EXPECT_EQ(log.Lines().size(), failures);
      log.Clear();
    }
    EXPECT_EQ(TestHooks::HeapBytesInUse(), heapBefore);
    EXPECT_EQ(TestHooks::MappedBytesInUse(), mappedBefore);
  });
  EXPECT_GT(runs, 10U) << "stock, flags, several chunks and runs";
}

TEST(MemoryPool, LastingLackOfMemoryIsAnsweredAndSurvived) {
  KavoTest::LogCapture log(SetLogSink);
  MemoryPool pool(9, 12);
  ASSERT_EQ(pool.InitMemPool(1), KAVO_SUCCESS);
  Take(pool);
  TestHooks::FailAllocation(1, true);
  unsigned char mark = 0;
  for (int i = 0; i < 100; ++i) {
    NumberedBlock out{&mark, 77};
    MemKind kind = MemKind::PREPARED;
    EXPECT_EQ(pool.GetMem(out, kind), KAVO_NO_MEMORY);
    EXPECT_EQ(out.address, &mark);
    EXPECT_EQ(kind, MemKind::ORDINARY);
    ExpectNoMemoryLine(log, "GetMem");
  }
  TestHooks::FailAllocation(0);
  std::vector<unsigned char*> blocks;
  for (int i = 0; i < 10000; ++i) {
    blocks.push_back(Take(pool).block);
    ASSERT_NE(blocks.back(), nullptr);
  }
  ExpectFreshAndDisjoint(blocks, 12);
}

#if KAVO_ADDRESS_SANITIZER
TEST(MemoryPool, SanitizerCatchesAWritePastAValue) {
  for (const unsigned blockSize : {5U, 11U, 12U, 13U, 16U}) {
    MemoryPool pool(10, blockSize);
    ASSERT_EQ(pool.InitMemPool(2), KAVO_SUCCESS);
    volatile unsigned char* const inStock = Take(pool).block;
    volatile unsigned char* const lastInStock = Take(pool).block;
    volatile unsigned char* const fresh = Take(pool).block;
    volatile unsigned char* const nextFresh = Take(pool).block;
    for (volatile unsigned char* const block : {inStock, lastInStock, fresh, nextFresh}) {
      block[0] = 1;
      block[blockSize - 1] = 1;
      EXPECT_DEATH(block[blockSize] = 1, "use-after-poison");
    }
  }
}
#endif

}  // namespace
}  // namespace Qen
