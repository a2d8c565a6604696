// Creations of one id that all find it free: a hook holds each thread, its table built, until all have come.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "kavo.h"
#include "platform/test_hooks.h"
#include "support/log_capture.h"

namespace Qen {
namespace {

constexpr int THREADS = 3;
std::barrier<>* g_allBuilt = nullptr;

TEST(ConcurrentCreation, LosersDestroyTheirTablesAndTheIdKeepsOne) {
  for (const unsigned id : {1U, 5000U}) {
    // The registry's map keeps its buckets once it has any.
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 8, 8, KAVO_TABLE_TYPE_BASIC));
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    const long long heap = TestHooks::HeapBytesInUse();
    const long long mapped = TestHooks::MappedBytesInUse();
    KavoTest::LogCapture capture(KavoSetLogSink);
    std::barrier<> allBuilt(THREADS);
    g_allBuilt = &allBuilt;
    TestHooks::SetPointHandler([](const char* point) {
      if (std::string(point) == "KavoInitHashTable.built") {
        g_allBuilt->arrive_and_wait();
      }
    });
    std::atomic<int> won{0};
    std::atomic<int> existed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
      threads.emplace_back([&] {
        const int ret = KavoInitHashTable(id, 100'000, 8, KAVO_TABLE_TYPE_BASIC);
        won += ret == KAVO_SUCCESS ? 1 : 0;
        existed += ret == KAVO_EXISTS ? 1 : 0;
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    TestHooks::SetPointHandler(nullptr);
    EXPECT_EQ(1, won);
    EXPECT_EQ(THREADS - 1, existed);
    ASSERT_EQ(static_cast<std::size_t>(THREADS - 1), capture.Lines().size());
    for (const auto& line : capture.Lines()) {
      EXPECT_EQ("TableId[" + std::to_string(id) + "] is existed.", line.message);
    }
    EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    EXPECT_EQ(heap, TestHooks::HeapBytesInUse());
    EXPECT_EQ(mapped, TestHooks::MappedBytesInUse());
  }
}

}  // namespace
}  // namespace Qen
