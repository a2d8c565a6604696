// What a thread remembers of the pools that it used: never anything of an earlier pool, never without bound.
#include "memory/thread_index.h"

#include "memory/memory_pool.h"
#include "memory/pool_serial.h"
#include "memory/pool_test_support.h"
#include "platform/test_hooks.h"

namespace Qen {
namespace {

using namespace PoolTest;

constexpr unsigned BLOCK_SIZE = 12;

class ThreadIndexOfId : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Ids, ThreadIndexOfId, testing::Values(17, 1024, -5));

TEST_P(ThreadIndexOfId, NewPoolOfAnOldIdStartsFromItsFirstSlot) {
  // Each size after a larger and after a smaller one, each pool left half used.
  for (const unsigned long long count : {1000ULL, 3ULL, 64ULL, 1ULL, 7ULL}) {
    MemoryPool pool(GetParam(), BLOCK_SIZE);
    ASSERT_EQ(pool.InitMemPool(count), KAVO_SUCCESS);
    const unsigned char* const slot0 = Take(pool).block;
    for (unsigned long long i = 1; i <= count / 2; ++i) {
      EXPECT_EQ(SlotOf(Take(pool).block, slot0, BLOCK_SIZE, count), static_cast<long long>(i));
    }
    // That slot0 was slot 0 indeed: the stock's other slots are all ahead of it.
    unsigned long long stock = 0;
    ASSERT_EQ(pool.PrepareMemForValues(stock), KAVO_SUCCESS);
    for (unsigned long long index = count / 2 + 1; index < count; ++index) {
      unsigned char* block = nullptr;
      ASSERT_EQ(pool.GetMemForValues(index, block), KAVO_SUCCESS);
      EXPECT_EQ(SlotOf(block, slot0, BLOCK_SIZE, count), static_cast<long long>(index));
    }
  }
}

TEST_P(ThreadIndexOfId, TwoPoolsOfOneIdDoNotShareBlocks) {
  // Two tables never have one id at a time, but a slow thread must not be hurt if they have it by turns.
  MemoryPool one(GetParam(), BLOCK_SIZE);
  MemoryPool other(GetParam(), BLOCK_SIZE);
  ASSERT_EQ(one.InitMemPool(16), KAVO_SUCCESS);
  ASSERT_EQ(other.InitMemPool(4), KAVO_SUCCESS);
  std::vector<unsigned char*> blocks;
  for (int i = 0; i < 40; ++i) {
    blocks.push_back(Take(one).block);
    blocks.push_back(Take(other).block);
  }
  ExpectFreshAndDisjoint(blocks, BLOCK_SIZE);
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

TEST_P(ThreadIndexOfId, ThreadThatIsEndingStillGetsBlocks) {
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
  EXPECT_EQ(atEnd.kind, MemKind::ORDINARY);
  ExpectFreshAndDisjoint({before.block, atEnd.block}, BLOCK_SIZE);
  // Array records outlive the map's.
  EXPECT_EQ(SlotOf(atEnd.block, before.block, BLOCK_SIZE, 8), GetParam() == 17 ? 1 : -1);
}

TEST(ThreadIndex, ThreadWithoutMemoryForARecordGetsAFreshBlockAndASlotNextTime) {
  InNewThread([] {
    MemoryPool pool(1024, BLOCK_SIZE);
    ASSERT_EQ(pool.InitMemPool(4), KAVO_SUCCESS);
    TestHooks::FailAllocation(1);
    const Taken without = Take(pool);
    EXPECT_EQ(TestHooks::AllocationFailures(), 1U);
    TestHooks::FailAllocation(0);
    EXPECT_EQ(without.ret, KAVO_SUCCESS);
    const unsigned char* const slot0 = Take(pool).block;
    EXPECT_EQ(SlotOf(without.block, slot0, BLOCK_SIZE, 4), -1);
    for (long long slot = 1; slot < 4; ++slot) {
      EXPECT_EQ(SlotOf(Take(pool).block, slot0, BLOCK_SIZE, 4), slot);
    }
  });
}

TEST(ThreadIndex, RecordsOfDestroyedPoolsDoNotPileUpAndThoseOfLivePoolsStay) {
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
      return TestHooks::HeapBytesInUse();
    };
    const long long after5000 = useManyPools(10000);
    const long long after10000 = useManyPools(20000);
    // Records of the second half alone, kept, would be 5,000 of 24 bytes and their nodes.
    EXPECT_LT(after10000 - after5000, 5000 * 24 / 4);
    EXPECT_EQ(SlotOf(Take(lasting).block, slot0, BLOCK_SIZE, 64), 1);
  });
  // Had the thread been counted anew, this would be the third and start at the middle.
  InNewThread([&] { EXPECT_EQ(SlotOf(Take(lasting).block, slot0, BLOCK_SIZE, 64), 2); });
}

TEST(PoolSerial, TellsInstancesApartAndKnowsTheLivingOnes) {
  std::vector<HeapPtr<PoolSerial>> live;
  std::vector<unsigned long long> seen{0};
  for (int i = 0; i < 300; ++i) {
    live.push_back(MakeHeapPtr<PoolSerial>());
    seen.push_back(live.back()->Value());
  }
  std::vector<unsigned long long> gone;
  for (std::size_t i = 0; i < live.size(); i += 3) {
    gone.push_back(live[i]->Value());
    live[i].reset();
  }
  for (const auto& serial : live) {
    EXPECT_TRUE(serial == nullptr || PoolSerial::IsLive(serial->Value()));
  }
  for (const unsigned long long serial : gone) {
    EXPECT_FALSE(PoolSerial::IsLive(serial));
  }
  seen.push_back(PoolSerial().Value());
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
}

}  // namespace
}  // namespace Qen
