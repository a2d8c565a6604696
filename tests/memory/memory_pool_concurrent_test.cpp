// Many threads take blocks at once: each block goes to one of them, and none is lost.
#include <gtest/gtest.h>

#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include "memory/memory_pool.h"
#include "memory/pool_test_support.h"

namespace KavoTest {
namespace {

using Qen::MemKind;
using Blocks = std::vector<unsigned char*>;

Blocks Joined(const std::vector<Blocks>& parts) {
  Blocks all;
  for (const Blocks& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  std::sort(all.begin(), all.end());
  return all;
}

// Runs work(0) ... work(threads - 1) at once.
void InThreads(unsigned threads, const std::function<void(unsigned)>& work) {
  std::latch ready(threads);
  std::vector<std::thread> running;
  for (unsigned i = 0; i < threads; ++i) {
    running.emplace_back([&, i] {
      ready.arrive_and_wait();
      work(i);
    });
  }
  for (std::thread& thread : running) {
    thread.join();
  }
}

// A scan ends only after every slot was seen taken, and a slot is taken only for a call that returns it. So the stock
// serves exactly the first S of all calls, whoever makes them: after S calls no slot is left.
TEST(MemoryPoolConcurrent, TheStockServesAsManyCallsAsItHasSlots) {
  constexpr unsigned THREADS = 8;
  for (const int id : {30, 30000}) {
    for (const unsigned long long count : {8ULL, 1000ULL, 40000ULL}) {
      Qen::MemoryPool pool(id, BLOCK_SIZE);
      ASSERT_EQ(pool.InitMemPool(count), KAVO_SUCCESS);
      std::vector<Blocks> taken(THREADS);
      InThreads(THREADS, [&](unsigned thread) {
        for (unsigned long long i = 0; i < count / THREADS; ++i) {
          taken[thread].push_back(Take(pool).block);
        }
      });
      const Blocks all = Joined(taken);
      ExpectFreshAndDisjoint(all);
      EXPECT_EQ(SlotOf(all.back(), all.front(), static_cast<long>(count)), static_cast<long>(count) - 1);
    }
  }
}

TEST(MemoryPoolConcurrent, EveryValueReleasedWhileOthersInsertIsAdoptedOnce) {
  constexpr unsigned THREADS = 6;
  constexpr unsigned long long COUNT = 20000;
  Qen::MemoryPool pool(34, BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(COUNT), KAVO_SUCCESS);
  unsigned long long count = 0;
  ASSERT_EQ(pool.PrepareMemForValues(count), KAVO_SUCCESS);
  Blocks released(COUNT);
  std::vector<Blocks> adopted(THREADS + 1);
  const auto insert = [&](unsigned thread, MemKind kind) {
    const Taken block = Take(pool, kind);
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
  std::sort(released.begin(), released.end());
  EXPECT_TRUE(Joined(adopted) == released);
}

}  // namespace
}  // namespace KavoTest
