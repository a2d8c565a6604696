// Queries against Init and Uninit: first the races with parked threads, then all at once; and what a lock that reports
// an error, or an empty list, comes to.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <numeric>
#include <random>
#include <shared_mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "kavo.hpp"
#include "partition/partition_map.h"
#include "partition/writer_priority_mutex.h"
#include "support/parking.h"
#include "support/seed.h"

namespace Qen {
namespace {

using Ids = std::vector<unsigned>;
using KavoTest::Parking;

constexpr unsigned UNTOUCHED = 0xABABABAB;

int Init(const Ids& ids) {
  return InitPartitionMap(1, static_cast<unsigned>(ids.size()), ids.data());
}

struct Batch {
  explicit Batch(std::size_t num, unsigned long long firstKey = 0) : keys(num), answers(num, UNTOUCHED) {
    std::iota(keys.begin(), keys.end(), firstKey);
  }
  void Run() {
    unsigned* array = answers.data();
    status = GetBatchPsIds(keys.data(), &array, static_cast<unsigned>(keys.size()));
  }
  bool IsAnsweredBy(const Ids& ids) const {
    Ids right;
    for (const unsigned long long key : keys) {
      right.push_back(ids[static_cast<std::size_t>(key % ids.size())]);
    }
    return status == KAVO_SUCCESS && answers == right;
  }
  bool IsRefused() const { return status == KAVO_FAILED && answers == Ids(keys.size(), UNTOUCHED); }

  std::vector<unsigned long long> keys;
  Ids answers;
  int status = 1;
};

class PartitionMapTest : public testing::Test {
 protected:
  ~PartitionMapTest() override { UninitPartitionMap(); }

 private:
  // Refused queries write many.
  const kavo::LogSink<void (*)(const kavo::LogLine&)> m_quiet{[](const kavo::LogLine&) {}};
};

TEST_F(PartitionMapTest, BatchUnderWayKeepsItsMapAndQueriesBehindAWaitingUninitSeeNone) {
  const Ids ids = {7, 9, 4};
  Parking gate("WriterPriorityMutex.gate", Parking::NEVER);
  ASSERT_EQ(KAVO_SUCCESS, Init(ids));
  Batch early(10);
  Batch late(10);
  late.Run();
  ASSERT_TRUE(late.IsAnsweredBy(ids));
  EXPECT_EQ(0U, gate.Passages()) << "no writer is there";
  late = Batch(10);
  int uninited = 1;
  Parking midway("PartitionMap.batchKey", 5);
  Parking announced("WriterPriorityMutex.announced", Parking::NEVER);
  std::jthread earlyQuery([&] { early.Run(); });
  ASSERT_TRUE(midway.WaitUntilParked());
  std::jthread uninit([&] { uninited = UninitPartitionMap(); });
  ASSERT_TRUE(Parking::Await([&] { return announced.Passages() != 0; }));
  // A lock that prefers readers would let this one in, beside the parked one.
  std::jthread lateQuery([&] { late.Run(); });
  ASSERT_TRUE(Parking::Await([&] { return gate.Passages() != 0; }));
  EXPECT_EQ(1, uninited) << "the map went while a batch was using it";
  midway.Release();
  earlyQuery.join();
  uninit.join();
  lateQuery.join();
  EXPECT_TRUE(early.IsAnsweredBy(ids));
  EXPECT_EQ(KAVO_SUCCESS, uninited);
  EXPECT_TRUE(late.IsRefused());
}

// The batches are long and every thread always has one under way, so their holds overlap all the time; and in the end
// the writer never pauses.
TEST_F(PartitionMapTest, NeitherQueriesNorWritersStarveAndEveryAnswerComesFromOneMap) {
  const unsigned long seed = KavoTest::TestSeed();
  const std::vector<Ids> maps = {{1, 2, 3}, {4, 5, 6, 7, 8}, {9}, {10, 11, 12}};
  std::atomic<bool> stop{false};
  std::atomic<unsigned long> answered{0};
  std::atomic<unsigned long> mixed{0};
  const auto query = [&](std::size_t size, unsigned long long firstKey) {
    Batch batch(size, firstKey);
    batch.Run();
    const bool one = std::any_of(maps.begin(), maps.end(), [&](const Ids& ids) { return batch.IsAnsweredBy(ids); });
    answered += one ? 1 : 0;
    mixed += one || batch.IsRefused() ? 0 : 1;
  };
  std::vector<std::jthread> readers;
  for (unsigned reader = 0; reader < 4; ++reader) {
    readers.emplace_back([&, reader] {
      for (std::mt19937_64 random(seed + reader); !stop;) {
        query(300, random());
      }
    });
  }
  std::mt19937_64 random(seed);
  for (int round = 0; round < 30; ++round) {
    EXPECT_EQ(KAVO_SUCCESS, Init(maps[static_cast<std::size_t>(random() % maps.size())]));
    const unsigned long before = answered;
    EXPECT_TRUE(Parking::Await([&] { return answered != before || mixed != 0; }));
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
    query(20, 0);
  }
  stop = true;
  EXPECT_EQ(0U, mixed);
}

// The one way in which a host meets such a report: a sink that, against the rules, calls back while Init holds the
// lock.
TEST_F(PartitionMapTest, LockErrorIsKavoFailedWithALine) {
  int status = KAVO_SUCCESS;
  unsigned reports = 0;
  unsigned psId = 0;
  const auto write = [&](const kavo::LogLine& line) {
    reports += line.Text().find(" : lock failed, exception caught:") != std::string_view::npos ? 1 : 0;
    if (line.Level() == kavo::LogLevel::INFO) {
      status = QueryPartitionMapPsId(1, &psId);
    }
  };
  {
    const kavo::LogSink sink(write, kavo::LogLevel::INFO);
    EXPECT_EQ(KAVO_SUCCESS, Init({5}));
  }
  EXPECT_EQ(KAVO_FAILED, status);
  EXPECT_EQ(1U, reports);
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
