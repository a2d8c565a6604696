// Which blocks a pool hands out to whom, what a thread remembers of pools, and what happens without memory.
#include "memory/memory_pool.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <set>
#include <vector>

#include "memory/fresh_blocks.h"
#include "memory/pool_test_support.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"

namespace KavoTest {
namespace {

using Qen::MemKind;
using Qen::MemoryPool;

// The two places where positions are kept must not differ in anything else.
class MemoryPoolOfId : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Ids, MemoryPoolOfId, testing::Values(17, 1023, 1024, INT_MAX, -1, INT_MIN));

TEST_P(MemoryPoolOfId, ThreadsStartAtSpreadOffsetsAndSkipTakenSlots) {
  MemoryPool pool(GetParam(), BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(64), KAVO_SUCCESS);
  // Offsets 0, S (that is 0, taken), S/2, 3S/4, S/4, 3S/8, 5S/8, 7S/8, S/8, 3S/16.
  constexpr std::array<long, 10> FIRST_SLOTS{0, 1, 32, 48, 16, 24, 40, 56, 8, 12};
  const unsigned char* slot0 = nullptr;
  for (const long slot : FIRST_SLOTS) {
    InNewThread([&] {
      const unsigned char* const block = Take(pool).block;
      slot0 = slot0 == nullptr ? block : slot0;
      EXPECT_EQ(SlotOf(block, slot0, 64), slot);
    });
  }
  // The eleventh starts at 5S/16, goes round once, and passes over everything that the others have.
  InNewThread([&] {
    for (long slot = 20; slot < 20 + 64; ++slot) {
      if (std::find(FIRST_SLOTS.begin(), FIRST_SLOTS.end(), slot % 64) == FIRST_SLOTS.end()) {
        EXPECT_EQ(SlotOf(Take(pool).block, slot0, 64), slot % 64);
      }
    }
    EXPECT_EQ(SlotOf(Take(pool).block, slot0, 64), -1);
  });
}

TEST_P(MemoryPoolOfId, ANewPoolOfAnOldIdStartsFromItsFirstSlot) {
  // Each size after a larger and after a smaller one, each pool left half used.
  for (const unsigned long long count : {1000ULL, 3ULL, 64ULL, 1ULL, 7ULL}) {
    MemoryPool pool(GetParam(), BLOCK_SIZE);
    ASSERT_EQ(pool.InitMemPool(count), KAVO_SUCCESS);
    const unsigned char* const slot0 = Take(pool).block;
    for (unsigned long long i = 1; i <= count / 2; ++i) {
      EXPECT_EQ(SlotOf(Take(pool).block, slot0, static_cast<long>(count)), i < count ? static_cast<long>(i) : -1);
    }
    // That slot0 was slot 0 indeed: the last slot is as far ahead.
    unsigned long long stock = 0;
    unsigned char* last = nullptr;
    ASSERT_EQ(pool.PrepareMemForValues(stock), KAVO_SUCCESS);
    if (count > 1 && pool.GetMemForValues(count - 1, last) == KAVO_SUCCESS) {
      EXPECT_EQ(SlotOf(last, slot0, static_cast<long>(count)), static_cast<long>(count) - 1);
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
  ExpectFreshAndDisjoint({before.block, atEnd.block});
}

TEST(MemoryPool, RecordsOfDestroyedPoolsDoNotPileUpAndThoseOfLivePoolsStay) {
  MemoryPool lasting(900000, BLOCK_SIZE);
  ASSERT_EQ(lasting.InitMemPool(64), KAVO_SUCCESS);
  const unsigned char* slot0 = nullptr;
  InNewThread([&] {
    slot0 = Take(lasting).block;
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
    EXPECT_EQ(SlotOf(Take(lasting).block, slot0, 64), 1);
  });
  // Had the thread been counted anew, this would be the third and start at the middle.
  InNewThread([&] { EXPECT_EQ(SlotOf(Take(lasting).block, slot0, 64), 2); });
}

TEST(MemoryPool, AThreadWithoutMemoryForARecordGetsAFreshBlockAndASlotNextTime) {
  InNewThread([] {
    MemoryPool pool(1024, BLOCK_SIZE);
    ASSERT_EQ(pool.InitMemPool(2), KAVO_SUCCESS);
    Qen::TestHooks::FailAllocation(1);
    const Taken without = Take(pool);
    Qen::TestHooks::FailAllocation(0);
    EXPECT_EQ(without.ret, KAVO_SUCCESS);
    const unsigned char* const slot0 = Take(pool).block;
    EXPECT_EQ(SlotOf(without.block, slot0, 2), -1);
    EXPECT_EQ(SlotOf(Take(pool).block, slot0, 2), 1);
  });
}

TEST(MemoryPool, OnlyTheMatchingKindDrawsOnTheStock) {
  MemoryPool pool(4, BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(4), KAVO_SUCCESS);
  for (const MemKind kind : {MemKind::PREPARED, static_cast<MemKind>(7)}) {
    EXPECT_EQ(Take(pool, kind).kind, MemKind::ORDINARY);
  }
  const unsigned char* const slot0 = Take(pool).block;
  for (long slot = 1; slot < 4; ++slot) {
    EXPECT_EQ(SlotOf(Take(pool).block, slot0, 4), slot) << "the stock still has all four";
  }
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
  const LogCapture log(Qen::SetLogSink);
  MemoryPool pool(8, 12);
  // The whole address space, just past it after multiplication, and merely more than any machine has.
  for (const unsigned long long count : {ULLONG_MAX, ULLONG_MAX / 16 + 2, 1ULL << 50, 1ULL << 31}) {
    EXPECT_EQ(pool.InitMemPool(count), KAVO_NO_MEMORY) << count;
  }
  EXPECT_EQ(log.Count("make_unique failed, exception caught:std::bad_alloc"), 4U);
  EXPECT_EQ(Take(pool).ret, KAVO_SUCCESS);
}

// Stock, flags, chunks and runs.
TEST(MemoryPool, AnyOneFailedAllocationCostsOneCallAtMostAndNothingLeaks) {
  LogCapture log(Qen::SetLogSink);
  const unsigned long long runs = ForEachFailingAllocation([&] {
    const long long heapBefore = Qen::TestHooks::HeapBytesInUse();
    const long long mappedBefore = Qen::TestHooks::MappedBytesInUse();
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
        } else {
          ++failures;
          EXPECT_EQ(taken.ret, KAVO_NO_MEMORY);
        }
      }
      ExpectFreshAndDisjoint(blocks, 1004);
      EXPECT_LE(failures, FaultWasInjected() ? 1U : 0U);  // none where a smaller chunk would do
      EXPECT_EQ(log.Count("make_unique failed, exception caught:std::bad_alloc"), failures);
      log.Clear();
    }
    EXPECT_EQ(Qen::TestHooks::HeapBytesInUse(), heapBefore);
    EXPECT_EQ(Qen::TestHooks::MappedBytesInUse(), mappedBefore);
  });
  EXPECT_GT(runs, 10U);
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
