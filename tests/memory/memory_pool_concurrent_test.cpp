// Many threads take blocks at once: each block goes to one of them, and none is lost.
#include <atomic>
#include <cstring>
#include <functional>
#include <set>

#include "memory/fresh_blocks.h"
#include "memory/memory_pool.h"
#include "memory/pool_test_support.h"
#include "platform/test_hooks.h"
#include "support/parking.h"

namespace Qen {
namespace {

using namespace PoolTest;

constexpr unsigned BLOCK_SIZE = 20;

std::vector<unsigned char*> Joined(const std::vector<std::vector<unsigned char*>>& parts) {
  std::vector<unsigned char*> all;
  for (const auto& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// Runs work(0) ... work(threads - 1) at once.
void InThreads(unsigned threads, const std::function<void(unsigned)>& work) {
  std::atomic<unsigned> ready{0};
  std::vector<std::thread> running;
  for (unsigned i = 0; i < threads; ++i) {
    running.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < threads) {
        std::this_thread::yield();
      }
      work(i);
    });
  }
  for (std::thread& thread : running) {
    thread.join();
  }
}

// A scan ends only after every slot was seen taken, and a slot is taken only for a call that returns it. So the stock
// serves exactly the first S of all calls, whoever makes them: after S calls no slot is left.
TEST(MemoryPoolConcurrent, StockServesAsManyCallsAsItHasSlots) {
  constexpr unsigned THREADS = 8;
  const KavoTest::LogCapture quiet(SetLogSink);
  for (const int id : {30, 30000}) {
    for (const unsigned long long count : {8ULL, 1000ULL, 40000ULL}) {
      for (const unsigned long long more : {0ULL, 500ULL}) {
        MemoryPool pool(id, BLOCK_SIZE);
        ASSERT_EQ(pool.InitMemPool(count), KAVO_SUCCESS);
        std::vector<std::vector<unsigned char*>> taken(THREADS);
        InThreads(THREADS, [&](unsigned thread) {
          for (unsigned long long i = 0; i < count / THREADS + more; ++i) {
            taken[thread].push_back(Take(pool).block);
          }
        });
        ExpectFreshAndDisjoint(Joined(taken), BLOCK_SIZE);
        // The converted stock tells which slots are taken.
        unsigned long long slots = 0;
        ASSERT_EQ(pool.PrepareMemForValues(slots), KAVO_SUCCESS);
        unsigned long long left = 0;
        for (unsigned long long index = 0; index < slots; ++index) {
          unsigned char* block = nullptr;
          left += pool.GetMemForValues(index, block) == KAVO_SUCCESS ? 1 : 0;
        }
        EXPECT_EQ(left, 0U) << "of " << count;
      }
    }
  }
}

TEST(MemoryPoolConcurrent, ThreadThatLosesASlotGoesOnWithTheNext) {
  MemoryPool pool(31, BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(4), KAVO_SUCCESS);
  KavoTest::Parking parking("MemoryPool::TakeFromStock slot seen available");
  Taken late{};
  std::thread loser([&] { late = Take(pool); });
  parking.WaitUntilParked();
  // The second thread to come starts at slot 0, too, and takes it under the first one's eyes.
  const unsigned char* const slot0 = Take(pool).block;
  parking.Release();
  loser.join();
  EXPECT_EQ(SlotOf(late.block, slot0, BLOCK_SIZE, 4), 1);
  EXPECT_EQ(SlotOf(Take(pool).block, slot0, BLOCK_SIZE, 4), 2);
}

TEST(MemoryPoolConcurrent, EveryValueReleasedWhileOthersInsertIsAdoptedOnce) {
  constexpr unsigned THREADS = 6;
  constexpr unsigned long long COUNT = 20000;
  MemoryPool pool(34, BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(COUNT), KAVO_SUCCESS);
  unsigned long long count = 0;
  ASSERT_EQ(pool.PrepareMemForValues(count), KAVO_SUCCESS);
  std::vector<unsigned char*> released(COUNT);
  std::vector<std::vector<unsigned char*>> taken(THREADS + 1);
  std::vector<std::vector<unsigned char*>> adopted(THREADS + 1);
  const auto insert = [&](unsigned thread, MemKind kind) {
    const Taken block = Take(pool, kind);
    taken[thread].push_back(block.block);
    if (block.kind == MemKind::PREPARED) {
      adopted[thread].push_back(block.block);
    }
    return block.kind;
  };
  InThreads(THREADS, [&](unsigned thread) {
    for (unsigned long long i = thread / 2; i < COUNT; i += THREADS / 2) {
      if (thread % 2 == 0) {
        EXPECT_EQ(pool.GetMemForValues(i, released[i]), KAVO_SUCCESS);
      } else {
        insert(thread, i % 4 == 0 ? MemKind::ORDINARY : MemKind::PREPARED);
      }
    }
  });
  // A thread that comes afterwards walks over all that the others passed too early.
  InNewThread([&] {
    while (insert(THREADS, MemKind::PREPARED) == MemKind::PREPARED) {
    }
  });
  ExpectFreshAndDisjoint(Joined(taken), BLOCK_SIZE);
  std::vector<unsigned char*> all = Joined(adopted);
  std::sort(all.begin(), all.end());
  std::sort(released.begin(), released.end());
  EXPECT_TRUE(all == released) << all.size() << " adopted of " << COUNT;
}

TEST(FreshBlocksConcurrent, BlocksAreUniqueZeroAndKeepWhatIsWritten) {
  constexpr unsigned THREADS = 8;
  // From many blocks a run to one block a chunk.
  for (const auto& [size, perThread] : {std::pair{16U, 30000U}, {1000U, 2000U}, {300000U, 20U}}) {
    const BlockLayout layout{size, 0};
    FreshBlocks blocks(layout);
    std::vector<std::vector<unsigned char*>> taken(THREADS);
    InThreads(THREADS, [&, size = size, perThread = perThread](unsigned thread) {
      for (unsigned i = 0; i < perThread; ++i) {
        const auto [block, number] = blocks.Take();
        EXPECT_EQ(blocks.Directory().At(number), block);
        EXPECT_EQ(std::count(block, block + size, 0), size);
        const unsigned mark[2] = {thread + 1, i};
        std::memcpy(block, mark, sizeof(mark));
        std::memcpy(block + size - sizeof(mark), mark, sizeof(mark));
        taken[thread].push_back(block);
      }
    });
    unsigned spoilt = 0;
    for (unsigned thread = 0; thread < THREADS; ++thread) {
      for (unsigned i = 0; i < perThread; ++i) {
        const unsigned mark[2] = {thread + 1, i};
        const unsigned char* const block = taken[thread][i];
        spoilt += std::memcmp(block, mark, sizeof(mark)) != 0 ||
                          std::memcmp(block + size - sizeof(mark), mark, sizeof(mark)) != 0
                      ? 1
                      : 0;
      }
    }
    EXPECT_EQ(spoilt, 0U) << size;
  }
}

// What of the chunk's numbers has no memory then is not used, and nobody is told of the refusal.
TEST(FreshBlocksConcurrent, AChunkThatTheSystemRefusesIsMadeSmaller) {
  constexpr unsigned SIZE = 1024;
  FreshBlocks blocks(BlockLayout{SIZE, 0});
  std::set<BlockNumber> numbers;
  std::set<unsigned char*> addresses;
  const auto take = [&](int count) {
    for (; count > 0; --count) {
      const NumberedBlock block = blocks.Take();
      EXPECT_EQ(blocks.Directory().At(block.number), block.address);
      std::memset(block.address, 1, SIZE);
      numbers.insert(block.number);
      addresses.insert(block.address);
    }
  };
  take(64);
  TestHooks::FailAllocation(2);  // of the second chunk: a place in the list is had, its memory is not
  take(64);
  EXPECT_EQ(TestHooks::AllocationFailures(), 1U);
  TestHooks::FailAllocation(0);
  EXPECT_EQ(*numbers.rbegin(), 127U);
  take(1000);
  EXPECT_EQ(addresses.size(), 1128U);
  EXPECT_EQ(numbers.size(), 1128U);
  EXPECT_EQ(numbers.count(128), 0U);
  EXPECT_EQ(numbers.count(192), 1U);
}

TEST(FreshBlocksConcurrent, RunThatTwoThreadsFindUsedUpIsReplacedOnce) {
  constexpr unsigned SIZE = 16;
  FreshBlocks scratch(BlockLayout{SIZE, 0});
  FreshBlocks blocks(BlockLayout{SIZE, 0});
  unsigned char* ofParked = nullptr;
  std::atomic<bool> go{false};
  std::atomic<bool> runIsUsedUp{false};
  std::thread parked([&] {
    for (int i = 0; i < 8; ++i) {
      blocks.Take();
    }
    runIsUsedUp = true;
    while (!go.load()) {
      std::this_thread::yield();
    }
    ofParked = blocks.Take().address;
  });
  while (!runIsUsedUp.load()) {
    std::this_thread::yield();
  }
  // Threads get their arenas by turns: the 32nd after this one shares its arena.
  for (int i = 0; i < 31; ++i) {
    InNewThread([&] { scratch.Take(); });
  }
  KavoTest::Parking parking("FreshBlocks::Take run used up");
  go = true;
  parking.WaitUntilParked();
  InNewThread([&] {
    unsigned char* const first = blocks.Take().address;  // replaces the run
    unsigned char* const second = blocks.Take().address;
    EXPECT_EQ(second, first + SIZE) << "of one run";
    parking.Release();
    parked.join();
    EXPECT_EQ(ofParked, second + SIZE) << "the next of the same run: it was not replaced again";
    EXPECT_EQ(blocks.Take().address, ofParked + SIZE);
  });
}

}  // namespace
}  // namespace Qen
