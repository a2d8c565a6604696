// Queries against Init and Uninit: first the races with parked threads, then all at once; and what a lock that reports
// an error, or an empty list, comes to.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "kavo.h"
#include "partition/partition_map.h"
#include "partition/writer_priority_mutex.h"
#include "support/log_capture.h"
#include "support/parking.h"
#include "support/seed.h"

namespace Qen {
namespace {

using Ids = std::vector<unsigned>;

constexpr unsigned UNTOUCHED = 0xABABABAB;
// No passage is the so-many-th: the point only counts.
constexpr unsigned NEVER = ~0U;

int Init(const Ids& ids) {
  return InitPartitionMap(1, static_cast<unsigned>(ids.size()), ids.data());
}

struct Batch {
  explicit Batch(std::size_t num, unsigned long long firstKey = 0) : keys(num), answers(num, UNTOUCHED) {
    for (std::size_t i = 0; i < num; ++i) {
      keys[i] = firstKey + i;
    }
  }
  void Run() {
    unsigned* array = answers.data();
    status = GetBatchPsIds(keys.data(), &array, static_cast<unsigned>(keys.size()));
  }
  bool IsAnsweredBy(const Ids& ids) const {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (answers[i] != ids[static_cast<std::size_t>(keys[i] % ids.size())]) {
        return false;
      }
    }
    return status == KAVO_SUCCESS;
  }
  bool IsRefused() const {
    return status == KAVO_FAILED &&
           std::all_of(answers.begin(), answers.end(), [](unsigned id) { return id == UNTOUCHED; });
  }

  std::vector<unsigned long long> keys;
  Ids answers;
  int status = 1;
};

void WaitFor(const KavoTest::Parking& point) {
  const auto giveUp = std::chrono::steady_clock::now() + KavoTest::Parking::PATIENCE;
  while (point.Passages() == 0) {
    ASSERT_LT(std::chrono::steady_clock::now(), giveUp);
    std::this_thread::yield();
  }
}

class PartitionMapTest : public testing::Test {
 protected:
  PartitionMapTest() {
    const KavoLogSink sink{nullptr, [](void*, unsigned, int, const char*, va_list) {}, nullptr};
    KavoSetLogSink(&sink);  // refused queries write many
  }
  ~PartitionMapTest() override {
    UninitPartitionMap();
    KavoSetLogSink(nullptr);
  }
};

TEST_F(PartitionMapTest, BatchUnderWayKeepsItsMapAndQueriesBehindAWaitingUninitSeeNone) {
  const Ids ids = {7, 9, 4};
  KavoTest::Parking gate("WriterPriorityMutex.gate", NEVER);
  ASSERT_EQ(KAVO_SUCCESS, Init(ids));
  Batch early(10);
  Batch late(10);
  late.Run();
  ASSERT_TRUE(late.IsAnsweredBy(ids));
  EXPECT_EQ(0U, gate.Passages()) << "no writer is there";
  late = Batch(10);
  int uninited = 1;
  KavoTest::Parking midway("PartitionMap.batchKey", 5);
  KavoTest::Parking announced("WriterPriorityMutex.announced", NEVER);
  std::jthread earlyQuery([&] { early.Run(); });
  ASSERT_TRUE(midway.WaitUntilParked());
  std::jthread uninit([&] { uninited = UninitPartitionMap(); });
  WaitFor(announced);
  // A lock that prefers readers would let this one in, beside the parked one.
  std::jthread lateQuery([&] { late.Run(); });
  WaitFor(gate);
  EXPECT_EQ(1, uninited) << "the map went while a batch was using it";
  midway.Release();
  earlyQuery.join();
  uninit.join();
  lateQuery.join();
  EXPECT_TRUE(early.IsAnsweredBy(ids));
  EXPECT_EQ(KAVO_SUCCESS, uninited);
  EXPECT_TRUE(late.IsRefused());
}

// The batches are long and every thread always has one under way, so their holds overlap all the time; and the writer
// never pauses but for the first answer from each map.
TEST_F(PartitionMapTest, NeitherQueriesNorWritersStarveAndEveryAnswerComesFromOneMap) {
  const unsigned long seed = KavoTest::TestSeed();
  const std::vector<Ids> maps = {{1, 2, 3}, {4, 5, 6, 7, 8}, {9}, {10, 11, 12}};
  std::atomic<bool> stop{false};
  std::atomic<unsigned long> answered{0};
  std::atomic<unsigned long> mixed{0};
  std::vector<std::jthread> readers;
  for (unsigned reader = 0; reader < 4; ++reader) {
    readers.emplace_back([&, reader] {
      std::mt19937_64 random(seed + reader);
      while (!stop) {
        Batch batch(300, random());
        batch.Run();
        const bool one = std::any_of(maps.begin(), maps.end(), [&](const Ids& ids) { return batch.IsAnsweredBy(ids); });
        answered += one ? 1 : 0;
        mixed += one || batch.IsRefused() ? 0 : 1;
      }
    });
  }
  std::mt19937_64 random(seed);
  for (int round = 0; round < 30; ++round) {
    EXPECT_EQ(KAVO_SUCCESS, Init(maps[static_cast<std::size_t>(random() % maps.size())]));
    for (const unsigned long before = answered; answered == before && mixed == 0;) {
      std::this_thread::yield();
    }
    EXPECT_EQ(KAVO_SUCCESS, UninitPartitionMap());
  }
  stop = true;
  readers.clear();
  stop = false;
  std::jthread writer([&] {
    while (!stop) {
      static_cast<void>(Init(maps[0]));
      static_cast<void>(UninitPartitionMap());
    }
  });
  for (int i = 0; i < 300; ++i) {
    Batch batch(20);
    batch.Run();
    mixed += batch.IsRefused() || batch.IsAnsweredBy(maps[0]) ? 0 : 1;
  }
  stop = true;
  EXPECT_EQ(0U, mixed);
}

// The one way in which a host meets such a report: a sink that, against the rules, calls back while Init holds the
// lock.
TEST_F(PartitionMapTest, LockErrorIsKavoFailedWithALine) {
  struct Host {
    int status = KAVO_SUCCESS;
    std::string last;
  } host;
  const KavoLogSink sink{nullptr,
                         [](void* context, unsigned, int level, const char* format, va_list arguments) {
                           char text[512];
                           std::vsnprintf(text, sizeof(text), format, arguments);
                           auto& me = *static_cast<Host*>(context);
                           me.last = KavoTest::ParseLogLine(text).message;
                           if (level == KAVO_LOG_LEVEL_INFO) {
                             unsigned psId = 0;
                             me.status = QueryPartitionMapPsId(1, &psId);
                           }
                         },
                         &host};
  ASSERT_EQ(KAVO_SUCCESS, KavoSetLogSink(&sink));
  EXPECT_EQ(KAVO_SUCCESS, Init({5}));
  EXPECT_EQ(KAVO_SUCCESS, KavoSetLogSink(nullptr));
  EXPECT_EQ(KAVO_FAILED, host.status);
  EXPECT_TRUE(host.last.starts_with("lock failed, exception caught:")) << host.last;
  unsigned psId = 0;
  EXPECT_EQ(KAVO_SUCCESS, QueryPartitionMapPsId(1, &psId));

  WriterPriorityMutex mutex;
  {
    const std::lock_guard writer(mutex);
    EXPECT_THROW(mutex.lock(), std::system_error);
    EXPECT_THROW(mutex.lock_shared(), std::system_error);
  }
  { const std::shared_lock reader(mutex); }
  const std::lock_guard writer(mutex);
}

// No exported function installs one.
TEST_F(PartitionMapTest, AnEmptyListFailsTheBoundsCheck) {
  PartitionMap& map = PartitionMap::GetInstance();
  ASSERT_EQ(KAVO_SUCCESS, map.Init(1, {}));
  Batch batch(2);
  batch.Run();
  EXPECT_TRUE(batch.IsRefused());
  EXPECT_EQ(KAVO_FAILED, QueryPartitionMapPsId(8, &batch.answers[0]));
  EXPECT_EQ(UNTOUCHED, batch.answers[0]);
}

}  // namespace
}  // namespace Qen
