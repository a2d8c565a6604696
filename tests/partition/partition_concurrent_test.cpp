// Queries against Init and Uninit: first the races with parked threads, then all at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "kavo.h"
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

class PartitionMapConcurrency : public testing::Test {
 protected:
  // Drops the lines: refused queries write many.
  PartitionMapConcurrency() {
    const KavoLogSink sink{nullptr, [](void*, unsigned, int, const char*, va_list) {}, nullptr};
    KavoSetLogSink(&sink);
  }
  ~PartitionMapConcurrency() override {
    UninitPartitionMap();
    KavoSetLogSink(nullptr);
  }
};

TEST_F(PartitionMapConcurrency, BatchUnderWayKeepsItsMapAndQueriesBehindAWaitingUninitSeeNone) {
  const Ids ids = {7, 9, 4};
  ASSERT_EQ(KAVO_SUCCESS, Init(ids));
  Batch early(10);
  Batch late(10);
  int uninited = 1;
  KavoTest::Parking midway("PartitionMap.batchKey", 5);
  KavoTest::Parking announced("WriterPriorityMutex.announced", NEVER);
  KavoTest::Parking gate("WriterPriorityMutex.gate", NEVER);

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

TEST_F(PartitionMapConcurrency, QueriesLeaveTheGateAloneWhenNoWriterIsThere) {
  const KavoTest::Parking gate("WriterPriorityMutex.gate", NEVER);
  ASSERT_EQ(KAVO_SUCCESS, Init({1, 2}));
  unsigned psId = 0;
  EXPECT_EQ(KAVO_SUCCESS, QueryPartitionMapPsId(3, &psId));
  EXPECT_EQ(KAVO_SUCCESS, UninitPartitionMap());
  EXPECT_EQ(KAVO_FAILED, QueryPartitionMapPsId(3, &psId));
  EXPECT_EQ(0U, gate.Passages());
}

TEST_F(PartitionMapConcurrency, QueriesGetThroughBetweenWritersThatNeverPause) {
  const Ids first = {1, 2};
  const Ids second = {3, 4, 5};
  ASSERT_EQ(KAVO_SUCCESS, Init(first));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    while (!stop) {
      EXPECT_EQ(KAVO_SUCCESS, UninitPartitionMap());
      EXPECT_EQ(KAVO_SUCCESS, Init(second));
    }
  });
  for (int i = 0; i < 2000; ++i) {
    Batch batch(20);
    batch.Run();
    EXPECT_TRUE(batch.IsRefused() || batch.IsAnsweredBy(first) || batch.IsAnsweredBy(second));
  }
  stop = true;
  writer.join();
}

// The batches are long and every thread always has one under way, so their holds overlap all the time.
TEST_F(PartitionMapConcurrency, UninitReturnsUnderConstantQueriesAndEveryAnswerComesFromOneMap) {
  constexpr int ROUNDS = 100;
  constexpr unsigned READERS = 4;
  const unsigned long seed = KavoTest::TestSeed();
  const std::vector<Ids> maps = {{1, 2, 3}, {4, 5, 6, 7, 8}, {9}, {10, 11, 12}};
  std::atomic<bool> stop{false};
  std::atomic<unsigned> begun{0};
  std::atomic<unsigned long> answered{0};
  std::atomic<unsigned long> refused{0};
  std::atomic<unsigned long> mixed{0};
  std::vector<std::thread> readers;
  for (unsigned reader = 0; reader < READERS; ++reader) {
    readers.emplace_back([&, reader] {
      std::mt19937_64 random(seed + reader);
      ++begun;
      while (!stop) {
        Batch batch(1000, random());
        batch.Run();
        const bool one = std::any_of(maps.begin(), maps.end(), [&](const Ids& ids) { return batch.IsAnsweredBy(ids); });
        answered += one ? 1 : 0;
        refused += batch.IsRefused() ? 1 : 0;
        mixed += one || batch.IsRefused() ? 0 : 1;

        unsigned psId = 0;
        if (QueryPartitionMapPsId(batch.keys[0], &psId) == KAVO_SUCCESS) {
          const bool known = std::any_of(maps.begin(), maps.end(), [&](const Ids& ids) {
            return psId == ids[static_cast<std::size_t>(batch.keys[0] % ids.size())];
          });
          mixed += known ? 0 : 1;
        }
      }
    });
  }
  while (begun < READERS) {
    std::this_thread::yield();
  }
  std::mt19937_64 random(seed);
  for (int round = 0; round < ROUNDS; ++round) {
    EXPECT_EQ(KAVO_SUCCESS, Init(maps[static_cast<std::size_t>(random() % maps.size())]));
    // Until the map has been used, so that each round is one.
    for (const unsigned long before = answered; answered == before && mixed == 0;) {
      std::this_thread::yield();
    }
    EXPECT_EQ(KAVO_SUCCESS, UninitPartitionMap());
  }
  stop = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(0U, mixed);
  EXPECT_GE(answered, static_cast<unsigned long>(ROUNDS));
}

TEST_F(PartitionMapConcurrency, OfManyInitsAndUninitsOneWinsEach) {
  constexpr int THREADS = 4;
  const auto inParallel = [](auto call) {
    std::vector<int> statuses(THREADS, 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
      threads.emplace_back([&statuses, &call, i] { statuses[static_cast<std::size_t>(i)] = call(); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    std::sort(statuses.begin(), statuses.end());
    return statuses;
  };
  for (int round = 0; round < 50; ++round) {
    EXPECT_EQ((std::vector<int>{KAVO_EXISTS, KAVO_EXISTS, KAVO_EXISTS, KAVO_SUCCESS}), inParallel([] {
                return Init({5, 6});
              }));
    EXPECT_EQ((std::vector<int>{KAVO_UNSUPPORTED, KAVO_UNSUPPORTED, KAVO_UNSUPPORTED, KAVO_SUCCESS}),
              inParallel(UninitPartitionMap));
  }
}

}  // namespace
}  // namespace Qen
