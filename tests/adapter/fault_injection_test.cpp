// Every allocation and mapping fails once, in turn, in creation and in first inserts: the call fails with a status and
// its lines, nothing is left behind, and the same call works afterwards.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "adapter/manager.h"
#include "kavo.h"
#include "platform/test_hooks.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"

namespace Qen {
namespace {

using Messages = std::vector<std::string>;

struct Held {
  long long heap = TestHooks::HeapBytesInUse();
  long long mapped = TestHooks::MappedBytesInUse();
  bool operator==(const Held&) const = default;
};

struct Kind {
  unsigned id;
  unsigned type;
};
class FaultInjection : public testing::TestWithParam<Kind> {
 protected:
  // What the process keeps from an id's first table on is not counted: the buckets of the registry's map, and this
  // thread's position in the pool.
  void SetUp() override {
    unsigned char value[1] = {};
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 8, 1, type));
    ASSERT_EQ(KAVO_SUCCESS, KavoInsert(id, 1, value, 1, 0, 0));
    ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
  }

  const unsigned id = GetParam().id;
  const unsigned type = GetParam().type;
};
INSTANTIATE_TEST_SUITE_P(Tables, FaultInjection,
                         testing::Values(Kind{1, KAVO_TABLE_TYPE_BASIC}, Kind{5000, KAVO_TABLE_TYPE_BASIC},
                                         Kind{1, KAVO_TABLE_TYPE_FILTER}),
                         [](const auto& param) {
                           return (param.param.type == KAVO_TABLE_TYPE_BASIC ? "Basic" : "Filter") +
                                  std::to_string(param.param.id);
                         });

TEST_P(FaultInjection, FailedCreationLeavesNothing) {
  const std::string line = "new failed, exception caught:std::bad_alloc";
  const auto faults = KavoTest::ForEachFailingAllocation([&] {
    const Held before;
    KavoTest::LogCapture capture(KavoSetLogSink);
    const int ret = KavoInitHashTable(id, 100'000, 8, type);
    if (!KavoTest::FaultWasInjected()) {
      EXPECT_EQ(KAVO_SUCCESS, ret);
      return;
    }
    EXPECT_EQ(KAVO_NO_MEMORY, ret);
    EXPECT_EQ(before, Held());
    EXPECT_EQ(1U, capture.Count(line));
    const auto lines = capture.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(line, lines.back().message);
    EXPECT_EQ("KavoInitHashTable", lines.back().function);
    EXPECT_EQ(KAVO_LOG_LEVEL_EVENT, lines.back().level);
    EXPECT_EQ(TABLE_TYPE_EMPTY, g_manager->GetManagerEle(static_cast<int>(id))->Load().type);
  });
  // At least the table, the hash table and its cells, the pool and its stock.
  EXPECT_GE(faults, 5U);
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
}

// Keys of one bucket, so that the table soon needs an overflow map and growth as well as blocks.
TEST_P(FaultInjection, FailedInsertLeavesTheKeyAbsentAndMayBeRepeated) {
  constexpr long KEYS = 300;
  constexpr long STEP = 4096;
  const Held before;
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 8, 8, type));
  unsigned char* address = nullptr;
  unsigned len = 0;
  unsigned found = 9;
  int refused = 0;
  for (long key = 0; key < KEYS * STEP; key += STEP) {
    SCOPED_TRACE(key);
    KavoTest::ForEachFailingAllocation([&] {
      KavoTest::LogCapture capture(KavoSetLogSink);
      const int ret = KavoLookupOrInsert(id, key, &address, &len, &found, 0);
      if (ret == KAVO_SUCCESS) {
        return;  // there was no fault, or the insert could do without what it hit
      }
      ++refused;
      EXPECT_TRUE(ret == KAVO_NO_MEMORY || ret == KAVO_FAILED) << ret;
      const Messages messages = capture.Messages();
      ASSERT_GE(messages.size(), 2U);
      EXPECT_EQ("LookupOrInsertWithValLen failed, ret[" + std::to_string(ret) + "]", messages.back());
      EXPECT_EQ(KAVO_INVALID, KavoLookup(id, key, &address, &len));
    });
  }
  for (long key = 0; key < KEYS * STEP; key += STEP) {
    EXPECT_EQ(KAVO_SUCCESS, KavoLookup(id, key, &address, &len)) << key;
  }
  EXPECT_GE(refused, 3);
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
  EXPECT_EQ(before, Held());
}

// A batch ends at the key whose insert failed, and goes on from there.
TEST_P(FaultInjection, FailedBatchHasServedTheKeysBeforeAndNoneBehind) {
  constexpr std::size_t KEYS = 300;
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 8, 8, type));
  std::vector<long> keys(KEYS);
  for (std::size_t i = 0; i < KEYS; ++i) {
    keys[i] = static_cast<long>(i) * 4096;
  }
  std::vector<unsigned char*> addresses(KEYS);
  std::vector<unsigned> isFind(KEYS, 9);
  std::size_t at = 0;
  int refused = 0;
  for (unsigned long long nth = 1; at < KEYS; nth = nth % 3 + 1) {
    KavoTest::LogCapture capture(KavoSetLogSink);
    TestHooks::FailAllocation(nth);
    unsigned long long done = 9999;
    const int ret = KavoBatchLookupOrInsert(id, &keys[at], KEYS - at, &addresses[at], &isFind[at], 0, &done);
    TestHooks::FailAllocation(0);
    ASSERT_LE(done, KEYS - at);
    at += static_cast<std::size_t>(done);
    EXPECT_EQ(ret == KAVO_SUCCESS, at == KEYS);
    unsigned long long found = 0;
    EXPECT_EQ(KAVO_SUCCESS, KavoBatchLookup(id, keys.data(), KEYS, std::vector<unsigned char*>(KEYS).data(), &found));
    ASSERT_EQ(at, found) << "keys beside those that were served";
    if (ret == KAVO_SUCCESS) {
      break;
    }
    ++refused;
    ASSERT_TRUE(ret == KAVO_NO_MEMORY || ret == KAVO_FAILED) << ret;
    EXPECT_EQ("KavoBatchLookupOrInsert failed, ret[" + std::to_string(ret) + "], done[" + std::to_string(done) + "]",
              capture.Messages().back());
    EXPECT_EQ(nullptr, addresses[at]);
    EXPECT_EQ(9U, isFind[at]);
  }
  EXPECT_GE(refused, 3);
  EXPECT_EQ(std::vector<unsigned>(KEYS), isFind) << "each key is new once";
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
}

TEST(FailedInsert, WithoutABlockNamesTheCauseInEveryLayer) {
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, 8, KAVO_TABLE_TYPE_BASIC));
  unsigned char value[8] = {1};
  for (long key = 0; key < 8; ++key) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInsert(1, key, value, 8, 0, 0));
  }
  KavoTest::LogCapture capture(KavoSetLogSink);
  TestHooks::FailAllocation(1, true);
  EXPECT_EQ(KAVO_NO_MEMORY, KavoInsert(1, 8, value, 8, 0, 0));
  TestHooks::FailAllocation(0);
  Messages messages = capture.Messages();
  ASSERT_GE(messages.size(), 3U);
  messages.erase(messages.begin(), messages.end() - 3);  // the pool's own
  EXPECT_EQ((Messages{"pool GetMem failed, ret = [-3]", "assignValue failed!", "Insert failed, ret[-3]"}), messages);
  EXPECT_EQ("GetMemAndRawPtr", capture.Lines()[capture.Lines().size() - 3].function);
  EXPECT_EQ(KAVO_SUCCESS, KavoInsert(1, 8, value, 8, 0, 0)) << "the key may be offered again at once";
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

}  // namespace
}  // namespace Qen
