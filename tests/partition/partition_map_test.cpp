// The partition map through the exported functions: statuses, values and log lines, step by step.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kavo.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace {

using Ids = std::vector<unsigned>;
using Keys = std::vector<unsigned long long>;

constexpr unsigned long long MAX_KEY = ~0ULL;
constexpr unsigned UNTOUCHED = 0xABABABAB;

int Init(unsigned partitionNum, const Ids& ids) {
  return InitPartitionMap(partitionNum, static_cast<unsigned>(ids.size()), ids.data());
}

// "level file function: message", which is what a host can tell lines apart by.
std::vector<std::string> Summaries(const KavoTest::LogCapture& capture) {
  static constexpr std::array<const char*, 5> LEVELS = {"debug", "info", "warn", "error", "event"};
  std::vector<std::string> summaries;
  for (const KavoTest::LogLine& line : capture.Lines()) {
    EXPECT_TRUE(line.framed) << line.raw;
    EXPECT_EQ(line.line, line.lineAgain);
    EXPECT_EQ(line.level == KAVO_LOG_LEVEL_DEBUG ? KavoTest::DEBUG_CHANNEL : KavoTest::RUN_CHANNEL, line.channel);
    summaries.push_back(std::string(LEVELS.at(static_cast<std::size_t>(line.level))) + " " + line.file + " " +
                        line.function + ": " + line.message);
  }
  return summaries;
}

class PartitionMapTest : public testing::Test {
 protected:
  ~PartitionMapTest() override { UninitPartitionMap(); }
  KavoTest::LogCapture m_log{KavoSetLogSink};
};

struct Step {
  const char* what;
  std::function<int()> call;
  int status;
  std::vector<std::string> lines;
};

TEST_F(PartitionMapTest, EveryStepHasItsStatusAndItsLines) {
  unsigned psId = UNTOUCHED;
  unsigned* const none = nullptr;
  const auto query = [&psId](unsigned long long key) {
    return [&psId, key] { return QueryPartitionMapPsId(key, &psId); };
  };
  Ids answers(3, UNTOUCHED);
  unsigned* array = answers.data();
  unsigned* nullArray = nullptr;
  const Keys keys = {10, 5, MAX_KEY};
  const auto batch = [](const unsigned long long* in, unsigned** out, unsigned num) {
    return [in, out, num] { return GetBatchPsIds(in, out, num); };
  };
  const auto batchRefused = [](unsigned num) {
    return std::vector<std::string>{
        "error kavo_adapter.cpp GetBatchPsIds: keys is null, psIds or *psIds is null or num[" + std::to_string(num) +
        "] == 0"};
  };
  const Ids ids = {7, 9, 4};
  const auto init = [](unsigned partitionNum, unsigned psNum, const unsigned* list) {
    return [=] { return InitPartitionMap(partitionNum, psNum, list); };
  };
  const std::string uninited =
      "warn partition_map.cpp Uninit: There is no inited PartitionMap or the PartitionMap has been uninited!";
  const std::string removed = "info partition_map.cpp Uninit: Uninit partitionMap successfully!";

  const std::vector<Step> steps = {
      {"query before any map",
       query(18446744073709551615ULL),
       KAVO_FAILED,
       {"error partition_map.cpp QueryTargetId: PartitionMap is not inited! key[18446744073709551615].",
        "error kavo_adapter.cpp QueryPartitionMapPsId: QueryTargetId failed! key[18446744073709551615]"}},
      {"batch before any map",
       batch(keys.data(), &array, 3),
       KAVO_FAILED,
       {"error partition_map.cpp QueryTargetIds: PartitionMap is not inited!",
        "error kavo_adapter.cpp GetBatchPsIds: QueryTargetIds failed! num[3] of keys, ret[-1]"}},
      {"uninit before any map", UninitPartitionMap, KAVO_UNSUPPORTED, {uninited}},

      {"partition count 0",
       init(0, 3, ids.data()),
       KAVO_INVALID,
       {"error kavo_adapter.cpp InitPartitionMap: partitionNum[0] == 0, psNum[3] == 0, or psId is null"}},
      {"no servers",
       init(4, 0, ids.data()),
       KAVO_INVALID,
       {"error kavo_adapter.cpp InitPartitionMap: partitionNum[4] == 0, psNum[0] == 0, or psId is null"}},
      {"null list",
       init(4, 3, nullptr),
       KAVO_INVALID,
       {"error kavo_adapter.cpp InitPartitionMap: partitionNum[4] == 0, psNum[3] == 0, or psId is null"}},
      {"refused arguments installed nothing", UninitPartitionMap, KAVO_UNSUPPORTED, {uninited}},

      {"init",
       init(4, 3, ids.data()),
       KAVO_SUCCESS,
       {"info partition_map.cpp Init: Init partitionMap successfully! partitionNum[4], targetIdNum[3]"}},
      {"the same again",
       [] {
         return Init(4, {7, 9, 4});
       },
       KAVO_EXISTS,
       {"warn partition_map.cpp Init: PartitionMap already exists! PartitionNum[4], targetIds.size[3]"}},
      {"another partition count",
       init(5, 3, ids.data()),
       KAVO_FAILED,
       {"error partition_map.cpp Init: PartitionMap had been inited! Original partitionNum[4], targetIds.size[3]. New "
        "partitionNum[5], targetIds.size[3]"}},
      {"another order",
       [] {
         return Init(4, {7, 4, 9});
       },
       KAVO_FAILED,
       {"error partition_map.cpp Init: PartitionMap had been inited! Original partitionNum[4], targetIds.size[3]. New "
        "partitionNum[4], targetIds.size[3]"}},
      {"a prefix",
       init(4, 2, ids.data()),
       KAVO_FAILED,
       {"error partition_map.cpp Init: PartitionMap had been inited! Original partitionNum[4], targetIds.size[3]. New "
        "partitionNum[4], targetIds.size[2]"}},

      {"query to null",
       [none] { return QueryPartitionMapPsId(5, none); },
       KAVO_INVALID,
       {"error kavo_adapter.cpp QueryPartitionMapPsId: psId is nullper"}},
      {"batch of null keys", batch(nullptr, &array, 3), KAVO_INVALID, batchRefused(3)},
      {"batch to null", batch(keys.data(), nullptr, 3), KAVO_INVALID, batchRefused(3)},
      {"batch to a null array", batch(keys.data(), &nullArray, 3), KAVO_INVALID, batchRefused(3)},
      {"batch of none", batch(keys.data(), &array, 0), KAVO_INVALID, batchRefused(0)},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    EXPECT_EQ(step.status, step.call());
    EXPECT_EQ(step.lines, Summaries(m_log));
    m_log.Clear();
  }
  EXPECT_EQ(UNTOUCHED, psId) << "a failed query wrote";
  EXPECT_EQ(Ids(3, UNTOUCHED), answers) << "a failed batch wrote";

  const std::vector<Step> success = {
      {"query", query(5), KAVO_SUCCESS, {}},
      {"batch", batch(keys.data(), &array, 3), KAVO_SUCCESS, {}},
      {"uninit", UninitPartitionMap, KAVO_SUCCESS, {removed}},
      {"uninit again", UninitPartitionMap, KAVO_UNSUPPORTED, {uninited}},
      {"a different map after uninit",
       [] { return Init(1, {3}); },
       KAVO_SUCCESS,
       {"info partition_map.cpp Init: Init partitionMap successfully! partitionNum[1], targetIdNum[1]"}},
  };
  for (const Step& step : success) {
    SCOPED_TRACE(step.what);
    EXPECT_EQ(step.status, step.call());
    EXPECT_EQ(step.lines, Summaries(m_log));
    m_log.Clear();
  }
  EXPECT_EQ(4U, psId);
  EXPECT_EQ((Ids{9, 4, 7}), answers) << "largest key: 2^64 - 1 is a multiple of 3";
  EXPECT_EQ(answers.data(), array) << "the caller's pointer is not to be changed";
}

TEST_F(PartitionMapTest, RefusedInitsLeaveTheInstalledMapInPlace) {
  ASSERT_EQ(KAVO_SUCCESS, Init(4, {7, 9, 4}));
  EXPECT_EQ(KAVO_FAILED, Init(9, {1, 2, 3, 5}));
  EXPECT_EQ(KAVO_EXISTS, Init(4, {7, 9, 4})) << "the partition count or the list was replaced";
  const std::array<unsigned, 4> expected = {7, 9, 4, 7};
  for (unsigned key = 0; key < expected.size(); ++key) {
    unsigned psId = 0;
    EXPECT_EQ(KAVO_SUCCESS, QueryPartitionMapPsId(key, &psId));
    EXPECT_EQ(expected[key], psId) << key;
  }
}

TEST_F(PartitionMapTest, KeysAreMappedByUnsignedRemainderInSinglesAndInBatches) {
  std::mt19937_64 random(KavoTest::TestSeed());
  for (const unsigned count : {1U, 2U, 3U, 7U, 64U, 1000U}) {
    Ids ids(count);
    for (unsigned& id : ids) {
      id = static_cast<unsigned>(random());
    }
    // The list is the library's own: what becomes of the caller's array does not matter.
    Ids given = ids;
    ASSERT_EQ(KAVO_SUCCESS, Init(count + 5, given));
    given.assign(count, UNTOUCHED);

    Keys keys = {0, 1, count - 1, count, count + 1ULL, MAX_KEY, MAX_KEY - 1, 1ULL << 63, (1ULL << 63) - 1, 1ULL << 32};
    while (keys.size() < 200) {
      keys.push_back(random());
    }
    // One entry more than is asked for.
    Ids answers(keys.size() + 1, UNTOUCHED);
    unsigned* array = answers.data();
    ASSERT_EQ(KAVO_SUCCESS, GetBatchPsIds(keys.data(), &array, static_cast<unsigned>(keys.size())));
    EXPECT_EQ(UNTOUCHED, answers.back()) << "the batch wrote past its end";
    for (std::size_t i = 0; i < keys.size(); ++i) {
      const unsigned expected = ids[static_cast<std::size_t>(keys[i] % count)];
      unsigned psId = 0;
      ASSERT_EQ(KAVO_SUCCESS, QueryPartitionMapPsId(keys[i], &psId));
      ASSERT_EQ(expected, psId) << keys[i] << " of " << count;
      ASSERT_EQ(expected, answers[i]) << keys[i] << " of " << count;
    }
    ASSERT_EQ(KAVO_SUCCESS, UninitPartitionMap());
  }
}

TEST_F(PartitionMapTest, DebugLinesListTheMapWhetherOrNotItIsTaken) {
  const KavoTest::LogCapture capture(KavoSetLogSink, true);
  const std::vector<std::string> dump = {
      "debug kavo_adapter.cpp InitPartitionMap: partitionNum[4], psNum[2], psIds are as follows:",
      "debug kavo_adapter.cpp InitPartitionMap: idx[0], psId[7]",
      "debug kavo_adapter.cpp InitPartitionMap: idx[1], psId[4294967295]",
  };
  std::vector<std::string> expected = dump;
  expected.push_back("info partition_map.cpp Init: Init partitionMap successfully! partitionNum[4], targetIdNum[2]");
  expected.insert(expected.end(), dump.begin(), dump.end());
  expected.push_back("warn partition_map.cpp Init: PartitionMap already exists! PartitionNum[4], targetIds.size[2]");
  EXPECT_EQ(KAVO_SUCCESS, Init(4, {7, 4294967295U}));
  EXPECT_EQ(KAVO_EXISTS, Init(4, {7, 4294967295U}));
  EXPECT_EQ(expected, Summaries(capture));
}

}  // namespace
