// Which blocks a pool hands out to whom, what a thread remembers of pools, and what happens without memory.
#include "memory/memory_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <set>
#include <vector>

#include "memory/fresh_blocks.h"
#include "memory/pool_test_support.h"
#include "platform/test_hooks.h"

namespace KavoTest {
namespace {

using Qen::BlockNumber;
using Qen::MemoryPool;

// The two places where positions are kept must not differ in anything else.
class MemoryPoolOfId : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Ids, MemoryPoolOfId, testing::Values(17, 1023, 1024, INT_MAX, -1, INT_MIN));

TEST_P(MemoryPoolOfId, ThreadsStartAtSpreadOffsetsAndSkipTakenSlots) {
  MemoryPool pool(GetParam(), BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(64), KAVO_SUCCESS);
  // Offsets 0, S (that is 0, taken), S/2, 3S/4, S/4, 3S/8, 5S/8, 7S/8, S/8, 3S/16.
  constexpr std::array<BlockNumber, 10> FIRST_SLOTS{0, 1, 32, 48, 16, 24, 40, 56, 8, 12};
  for (const BlockNumber slot : FIRST_SLOTS) {
    InNewThread([&] { EXPECT_EQ(Take(pool).number, slot); });
  }
  // The eleventh starts at 5S/16, goes round once, and passes over everything that the others have.
  InNewThread([&] {
    for (BlockNumber slot = 20; slot < 20 + 64; ++slot) {
      if (std::ranges::count(FIRST_SLOTS, slot % 64) == 0) {
        EXPECT_EQ(Take(pool).number, slot % 64);
      }
    }
    EXPECT_GE(Take(pool).number, 64U);
  });
}

TEST_P(MemoryPoolOfId, ANewPoolOfAnOldIdStartsFromItsFirstSlot) {
  // Each size after a larger and after a smaller one, each pool left half used.
  for (const unsigned count : {1000U, 3U, 64U, 1U, 7U}) {
    MemoryPool pool(GetParam(), BLOCK_SIZE);
    ASSERT_EQ(pool.InitMemPool(count), KAVO_SUCCESS);
    for (BlockNumber slot = 0; slot <= count / 2; ++slot) {
      EXPECT_EQ(Take(pool).number, slot);
    }
  }
}

// A host's own thread-local object that uses a pool when its thread ends. Made before the thread first enters the
// library, so it is destroyed after everything that the library keeps for the thread.
struct InsertsAtThreadEnd {
  MemoryPool* pool = nullptr;
  Taken* taken = nullptr;
  ~InsertsAtThreadEnd() {
    if (pool != nullptr) {
      *taken = Take(*pool);
    }
  }
};
thread_local InsertsAtThreadEnd g_atThreadEnd;

TEST_P(MemoryPoolOfId, AThreadThatIsEndingStillGetsBlocks) {
  MemoryPool pool(GetParam(), BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(8), KAVO_SUCCESS);
  Taken before{};
  Taken atEnd{};
  InNewThread([&] {
    g_atThreadEnd.pool = &pool;
    g_atThreadEnd.taken = &atEnd;
    before = Take(pool);
  });
  EXPECT_EQ(atEnd.ret, KAVO_SUCCESS);
  EXPECT_NE(atEnd.number, before.number);
}

TEST(MemoryPool, RecordsOfDestroyedPoolsDoNotPileUpAndThoseOfLivePoolsStay) {
  MemoryPool lasting(900000, BLOCK_SIZE);
  ASSERT_EQ(lasting.InitMemPool(64), KAVO_SUCCESS);
  InNewThread([&] {
    EXPECT_EQ(Take(lasting).number, 0U);
    const auto useManyPools = [](int firstId) {
      for (int id = firstId; id < firstId + 5000; ++id) {
        MemoryPool passing(id, BLOCK_SIZE);
        Take(passing);
      }
      return Qen::TestHooks::HeapBytesInUse();
    };
    const long long after5000 = useManyPools(10000);
    // Records of the second half alone, kept, would be 5,000 of 24 bytes and their nodes.
    EXPECT_LT(useManyPools(20000) - after5000, 5000 * 24 / 4);
    EXPECT_EQ(Take(lasting).number, 1U);
  });
  // Had the thread been counted anew, this would be the third and start at the middle.
  InNewThread([&] { EXPECT_EQ(Take(lasting).number, 2U); });
}

TEST(MemoryPool, AThreadWithoutMemoryForARecordGetsAFreshBlockAndASlotNextTime) {
  InNewThread([] {
    MemoryPool pool(1024, BLOCK_SIZE);
    ASSERT_EQ(pool.InitMemPool(2), KAVO_SUCCESS);
    Qen::TestHooks::FailAllocation(1);
    const Taken without = Take(pool);
    Qen::TestHooks::FailAllocation(0);
    EXPECT_EQ(without.ret, KAVO_SUCCESS);
    EXPECT_GE(without.number, 2U);
    EXPECT_EQ(Take(pool).number, 0U);
    EXPECT_EQ(Take(pool).number, 1U);
  });
}

TEST(MemoryPool, TheLongestValuesGetABlockEach) {
  constexpr unsigned LONGEST = 4294967295U;
  MemoryPool pool(6, LONGEST);
  const Taken first = Take(pool);
  const Taken second = Take(pool);
  if (first.ret == KAVO_NO_MEMORY) {
    GTEST_SKIP() << "the machine has less memory than one such value";
  }
  ASSERT_EQ(second.ret, KAVO_SUCCESS);
  EXPECT_GE(std::max(first.block, second.block) - std::min(first.block, second.block), LONGEST);
  for (unsigned char* const block : {first.block, second.block}) {
    EXPECT_EQ(block[LONGEST - 1], 0);
    block[LONGEST - 1] = 1;
  }
}

TEST(MemoryPool, StocksBeyondMemoryAreRefusedAndLeaveAUsablePool) {
  MemoryPool pool(8, 12);
  // The whole address space, just past it after multiplication, and merely more than any machine has.
  for (const unsigned long long count : {ULLONG_MAX, ULLONG_MAX / 16 + 2, 1ULL << 50, 1ULL << 31}) {
    EXPECT_EQ(pool.InitMemPool(count), KAVO_NO_MEMORY) << count;
  }
  EXPECT_EQ(Take(pool).ret, KAVO_SUCCESS);
}

// What of the chunk's numbers has no memory then is not used.
TEST(FreshBlocks, AChunkThatTheSystemRefusesIsMadeSmaller) {
  Qen::FreshBlocks blocks(Qen::BlockLayout{1024, 0});
  std::set<Qen::BlockNumber> numbers;
  std::set<unsigned char*> addresses;
  for (int taken = 0; taken < 1128; ++taken) {
    // Of the second chunk, a place in the list is had, its memory is not.
    Qen::TestHooks::FailAllocation(taken == 64 ? 2 : 0);
    const Qen::NumberedBlock block = blocks.Take();
    EXPECT_EQ(blocks.Directory().At(block.number), block.address);
    EXPECT_TRUE(taken >= 128 || block.number <= 127);
    numbers.insert(block.number);
    addresses.insert(block.address);
  }
  EXPECT_EQ(addresses.size(), 1128U);
  EXPECT_EQ(numbers.size(), 1128U);
  EXPECT_EQ(numbers.count(128), 0U);
  EXPECT_EQ(numbers.count(192), 1U);
}

#if KAVO_ADDRESS_SANITIZER
TEST(MemoryPool, TheSanitizerCatchesAWritePastAValue) {
  // The last two have stocks of mappings, which come back at the same place: poison that stayed would be met there.
  for (const unsigned blockSize : {5U, 11U, 12U, 13U, 16U, 70003U, 80000U}) {
    MemoryPool pool(10, blockSize);
    unsigned long long count = 0;
    ASSERT_EQ(pool.InitMemPool(3), KAVO_SUCCESS);
    std::vector<volatile unsigned char*> blocks{Take(pool).block, Take(pool).block};
    ASSERT_EQ(pool.PrepareMemForValues(count), KAVO_SUCCESS);
    unsigned char* prepared = nullptr;
    ASSERT_EQ(pool.GetMemForValues(2, prepared), KAVO_SUCCESS);
    blocks.insert(blocks.end(), {prepared, Take(pool).block, Take(pool).block});
    for (volatile unsigned char* const block : blocks) {
      std::fill(block, block + blockSize, static_cast<unsigned char>(1));
      EXPECT_DEATH(block[blockSize] = 1, "use-after-poison");
    }
  }
}
#endif

}  // namespace
}  // namespace KavoTest
