// Creation and destruction from many threads, seen through the exported functions only.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <functional>
#include <thread>
#include <vector>

#include "kavo.h"
#include "support/log_capture.h"

namespace {

void OnThreads(int count, const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back(work, i);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(Lifecycle, OneOfManyConcurrentCreationsOfAnIdWins) {
  constexpr int THREADS = 4;
  KavoTest::LogCapture quiet(KavoSetLogSink);
  for (const unsigned id : {2U, 5000U}) {
    for (int round = 0; round < 50; ++round) {
      std::barrier start(THREADS);
      std::atomic<int> won{0};
      std::atomic<int> existed{0};
      OnThreads(THREADS, [&](int) {
        start.arrive_and_wait();
        const int ret = KavoInitHashTable(id, 64, 8, KAVO_TABLE_TYPE_BASIC);
        ++(ret == KAVO_SUCCESS ? won : existed);
        EXPECT_TRUE(ret == KAVO_SUCCESS || ret == KAVO_EXISTS) << ret;
      });
      EXPECT_EQ(1, won);
      EXPECT_EQ(THREADS - 1, existed);
      ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    }
  }
}

// Ids of 1024 and above share a hash map, which creation and destruction change beside the calls that look in it.
TEST(Lifecycle, KeyCallsGoOnBesideCreationAndDestructionOfOtherIds) {
  constexpr unsigned BASE = 2000;
  KavoTest::LogCapture quiet(KavoSetLogSink);
  OnThreads(4, [&](int thread) {
    const unsigned own = BASE + static_cast<unsigned>(thread) * 1024;
    unsigned char value[8] = {static_cast<unsigned char>(thread)};
    for (int round = 0; round < 40; ++round) {
      ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(own, 64, 8, KAVO_TABLE_TYPE_BASIC));
      for (long key = 0; key < 30; ++key) {
        ASSERT_EQ(KAVO_SUCCESS, KavoInsert(own, key, value, 8, 0, 1));
        unsigned char* address = nullptr;
        unsigned len = 0;
        ASSERT_EQ(KAVO_SUCCESS, KavoLookup(own, key, &address, &len));
        ASSERT_EQ(thread, address[0]);
      }
      ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(own));
    }
  });
}

TEST(Lifecycle, ManyThreadsOfferingOneNewKeyGetOneAddressAndOneCreator) {
  constexpr int THREADS = 4;
  constexpr long KEYS = 400;
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, 8, KAVO_TABLE_TYPE_BASIC));
  std::vector<std::atomic<int>> creators(KEYS);
  std::vector<std::atomic<unsigned char*>> addresses(KEYS);
  std::barrier start(THREADS);
  OnThreads(THREADS, [&](int) {
    start.arrive_and_wait();
    for (long key = 0; key < KEYS; ++key) {
      unsigned char* address = nullptr;
      unsigned len = 0;
      unsigned isFind = 9;
      ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(1, key, &address, &len, &isFind, 0));
      const auto at = static_cast<std::size_t>(key);
      creators[at] += isFind == 0 ? 1 : 0;
      unsigned char* expected = nullptr;
      EXPECT_TRUE(addresses[at].compare_exchange_strong(expected, address) || expected == address) << key;
    }
  });
  for (long key = 0; key < KEYS; ++key) {
    EXPECT_EQ(1, creators[static_cast<std::size_t>(key)]) << key;
  }
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

}  // namespace
