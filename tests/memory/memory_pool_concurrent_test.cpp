// Threads write and release prepared values while others adopt them: each goes to one key, and none is lost.
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

// Of a stock that is not prepared, the explorer sees that each slot serves one call.
TEST(MemoryPoolConcurrent, EveryValueReleasedWhileOthersInsertIsAdoptedOnce) {
  constexpr unsigned THREADS = 6;
  constexpr unsigned COUNT = 20000;
  Qen::MemoryPool pool(34, BLOCK_SIZE);
  ASSERT_EQ(pool.InitMemPool(COUNT), KAVO_SUCCESS);
  unsigned long long count = 0;
  ASSERT_EQ(pool.PrepareMemForValues(count), KAVO_SUCCESS);
  std::vector<std::atomic<unsigned>> adopted(COUNT);  // how often each slot was
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
  EXPECT_TRUE(std::all_of(adopted.begin(), adopted.end(), [](unsigned times) { return times == 1; }));
}

}  // namespace
}  // namespace KavoTest
