// What the exported functions cannot bring about: no memory, an empty list, a lock that reports an error.
#include <gtest/gtest.h>

#include <mutex>
#include <shared_mutex>
#include <string>
#include <system_error>
#include <vector>

#include "kavo.h"
#include "partition/partition_map.h"
#include "partition/writer_priority_mutex.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"

namespace Qen {
namespace {

TEST(PartitionMapFaults, EachFailedAllocationIsNoMemoryWithOneEventAndNoMap) {
  const std::vector<unsigned> ids(5000, 3);
  KavoTest::LogCapture log(KavoSetLogSink);
  std::vector<std::string> units;
  const unsigned long long faults = KavoTest::ForEachFailingAllocation([&] {
    log.Clear();
    const int ret = InitPartitionMap(1, static_cast<unsigned>(ids.size()), ids.data());
    const bool hit = KavoTest::FaultWasInjected();
    TestHooks::FailAllocation(0);
    if (!hit) {
      EXPECT_EQ(KAVO_SUCCESS, ret);
      return;
    }
    EXPECT_EQ(KAVO_NO_MEMORY, ret);
    const auto lines = log.Lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(KAVO_LOG_LEVEL_EVENT, lines[0].level);
    EXPECT_EQ("make_unique failed, exception caught:std::bad_alloc", lines[0].message);
    units.push_back(lines[0].file + " " + lines[0].function);
    EXPECT_EQ(KAVO_UNSUPPORTED, UninitPartitionMap()) << "half a map was left";
  });
  // The list that is built from the arguments, and the map's own copy.
  EXPECT_EQ(2U, faults);
  EXPECT_EQ((std::vector<std::string>{"kavo_adapter.cpp InitPartitionMap", "partition_map.cpp Init"}), units);
  EXPECT_EQ(KAVO_SUCCESS, UninitPartitionMap());
}

TEST(PartitionMapFaults, AnEmptyListFailsTheBoundsCheckForEveryKey) {
  PartitionMap& map = PartitionMap::GetInstance();
  ASSERT_EQ(KAVO_SUCCESS, map.Init(1, {}));
  const KavoTest::LogCapture log(KavoSetLogSink);
  const std::string caught = "TargetIds at key[0] exception caught: ";
  unsigned psId = 77;
  EXPECT_EQ(KAVO_FAILED, QueryPartitionMapPsId(0, &psId));
  const unsigned long long keys[] = {0, 8};
  unsigned* const psIds = &psId;
  unsigned* array = psIds;
  EXPECT_EQ(KAVO_FAILED, GetBatchPsIds(keys, &array, 2));
  EXPECT_EQ(77U, psId);

  const auto lines = log.Lines();
  ASSERT_EQ(5U, lines.size());
  for (const std::size_t check : {0U, 2U}) {
    EXPECT_EQ("QueryId", lines[check].function);
    EXPECT_TRUE(lines[check].message.starts_with(caught)) << lines[check].message;
    EXPECT_GT(lines[check].message.size(), caught.size()) << "the exception's text is missing";
  }
  EXPECT_EQ("QueryTargetId failed! key[0]", lines[1].message);
  EXPECT_EQ("QueryId failed, key[0], ret[-1]", lines[3].message);
  EXPECT_EQ("QueryTargetIds", lines[3].function);
  EXPECT_EQ("QueryTargetIds failed! num[2] of keys, ret[-1]", lines[4].message);
  // Asked without keys, the class has nothing to fail on.
  EXPECT_EQ(KAVO_SUCCESS, map.QueryTargetIds(keys, array, 0));
  EXPECT_EQ(KAVO_SUCCESS, map.Uninit());
}

TEST(WriterPriorityMutex, SelfDeadlockIsReportedAndChangesNothing) {
  WriterPriorityMutex mutex;
  {
    const std::lock_guard writer(mutex);
    EXPECT_THROW(mutex.lock(), std::system_error);
    EXPECT_THROW(mutex.lock_shared(), std::system_error);
  }
  { const std::shared_lock reader(mutex); }
  const std::lock_guard writer(mutex);
}

// The one way in which a host meets such a report: a sink that, against the rules, calls back while Init holds the
// lock.
TEST(PartitionMapFaults, LockErrorIsKavoFailedWithALine) {
  struct Host {
    int status = KAVO_SUCCESS;
    std::vector<std::string> lines;
  } host;
  const KavoLogSink sink{nullptr,
                         [](void* context, unsigned, int level, const char* format, va_list arguments) {
                           char text[512];
                           std::vsnprintf(text, sizeof(text), format, arguments);
                           auto& me = *static_cast<Host*>(context);
                           me.lines.push_back(KavoTest::ParseLogLine(text).message);
                           if (level == KAVO_LOG_LEVEL_INFO) {
                             unsigned psId = 0;
                             me.status = QueryPartitionMapPsId(1, &psId);
                           }
                         },
                         &host};
  ASSERT_EQ(KAVO_SUCCESS, KavoSetLogSink(&sink));
  const unsigned ids[] = {5};
  EXPECT_EQ(KAVO_SUCCESS, InitPartitionMap(1, 1, ids));
  EXPECT_EQ(KAVO_SUCCESS, KavoSetLogSink(nullptr));
  EXPECT_EQ(KAVO_FAILED, host.status);
  ASSERT_EQ(2U, host.lines.size());
  EXPECT_TRUE(host.lines[1].starts_with("lock failed, exception caught:")) << host.lines[1];
  unsigned psId = 0;
  EXPECT_EQ(KAVO_SUCCESS, QueryPartitionMapPsId(1, &psId));
  EXPECT_EQ(KAVO_SUCCESS, UninitPartitionMap());
}

}  // namespace
}  // namespace Qen
