// Many threads take blocks at once: each block goes to one of them, and none is lost.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "memory/memory_pool.h"
#include "memory/pool_test_support.h"
#include "support/threads.h"

namespace KavoTest {
namespace {

using Qen::MemKind;

// How often each slot was handed out.
using Counts = std::vector<std::atomic<unsigned>>;

void ExpectEachOnce(const Counts& counts) {
  EXPECT_TRUE(std::all_of(counts.begin(), counts.end(), [](unsigned count) { return count == 1; }));
}

// A scan ends only after every slot was seen taken, and a slot is taken only for a call that returns it. So the stock
// serves exactly the first S of all calls, whoever makes them: after S calls no slot is left.
TEST(MemoryPoolConcurrent, TheStockServesAsManyCallsAsItHasSlots) {
  constexpr unsigned THREADS = 8;
  for (const int id : {30, 30000}) {
    for (const unsigned count : {8U, 1000U, 40000U}) {
      Qen::MemoryPool pool(id, BLOCK_SIZE);
      ASSERT_EQ(pool.InitMemPool(count), KAVO_SUCCESS);
      Counts taken(count);
      InThreads(THREADS, [&](unsigned) {
        for (unsigned i = 0; i < count / THREADS; ++i) {
          const Qen::BlockNumber slot = Take(pool).number;
          ASSERT_LT(slot, count) << "a fresh block, while there were some in stock";
          ++taken[slot];
        }
      });
      ExpectEachOnce(taken);
    }
  }
}

TEST(MemoryPoolConcurrent, EveryValueReleasedWhileOthersInsertIsAdoptedOnce) {
  constexpr unsigned THREADS = 6;
  constexpr unsigned COUNT = 20000;
  Qen::MemoryPool pool(34, BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(COUNT), KAVO_SUCCESS);
  unsigned long long count = 0;
  ASSERT_EQ(pool.PrepareMemForValues(count), KAVO_SUCCESS);
  Counts adopted(COUNT);
  const auto adopts = [&](MemKind kind) {
    const Taken block = Take(pool, kind);
    const bool isPrepared = block.kind == MemKind::PREPARED;
    if (isPrepared) {
      ++adopted.at(block.number);
    }
    return isPrepared;
  };
  InThreads(THREADS, [&](unsigned thread) {
    for (unsigned i = thread / 2; i < COUNT; i += THREADS / 2) {
      unsigned char* released = nullptr;
      if (thread % 2 == 0) {
        EXPECT_EQ(pool.GetMemForValues(i, released), KAVO_SUCCESS);
      } else {
        adopts(i % 4 == 0 ? MemKind::ORDINARY : MemKind::PREPARED);
      }
    }
  });
  // A thread that comes afterwards walks over all that the others passed too early.
  InNewThread([&] {
    while (adopts(MemKind::PREPARED)) {
    }
  });
  ExpectEachOnce(adopted);
}

}  // namespace
}  // namespace KavoTest
