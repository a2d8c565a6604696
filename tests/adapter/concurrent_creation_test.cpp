// Creations of one id that all find it free: a hook holds each thread, its table built, until all have come.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <cstring>
#include <string>

#include "adapter/manager.h"
#include "kavo.h"
#include "platform/test_hooks.h"
#include "support/held.h"
#include "support/log_capture.h"
#include "support/threads.h"

namespace KavoTest {
namespace {

constexpr int THREADS = 3;
std::barrier<>* g_allBuilt = nullptr;

TEST(ConcurrentCreation, LosersDestroyTheirTablesAndTheIdKeepsOne) {
  for (const unsigned id : {1U, 5000U}) {
    // The registry's map keeps its buckets once it has any.
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 8, 8, KAVO_TABLE_TYPE_BASIC));
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    const Held before;
    LogCapture capture;
    std::barrier<> allBuilt(THREADS);
    g_allBuilt = &allBuilt;
    Qen::TestHooks::SetPointHandler([](const char* point) {
      if (std::strcmp(point, "KavoInitHashTable.built") == 0) {
        g_allBuilt->arrive_and_wait();
      }
    });
    std::atomic<int> won{0};
    std::atomic<int> existed{0};
    InThreads(THREADS, [&](unsigned) {
      const int ret = KavoInitHashTable(id, 100'000, 8, KAVO_TABLE_TYPE_BASIC);
      won += ret == KAVO_SUCCESS ? 1 : 0;
      existed += ret == KAVO_EXISTS ? 1 : 0;
    });
    Qen::TestHooks::SetPointHandler(nullptr);
    EXPECT_EQ(1, won);
    EXPECT_EQ(THREADS - 1, existed);
    EXPECT_EQ(THREADS - 1U, capture.Count("TableId[" + std::to_string(id) + "] is existed."));
    EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    EXPECT_EQ(before, Held());
    EXPECT_EQ(0U, Qen::g_manager->m_eleMap.size()) << "an id costs nothing any more";
  }
}

}  // namespace
}  // namespace KavoTest
