// The plain table from inside: what insert-or-find reports beside the status, and how construction fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <optional>
#include <string>

#include "hash/hcore.h"
#include "hash/traits.h"
#include "hash/value_record.h"
#include "kavo.h"
#include "platform/test_hooks.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"
#include "table/basic_es_concurrent_table.h"

namespace Qen {
namespace {

using Table = BasicEsConcurrentTable<int, long, HashValue, KTraits, VTraits>;
using Info = Table::OperationInfo;

TEST(BasicTable, SizeAskedForSettlesTheCapacity) {
  EXPECT_EQ(2'097'152U, Table(1, 0, 8).Capacity());
  EXPECT_EQ(8U, Table(1, 3, 8).Capacity());
  EXPECT_EQ(1000U, Table(1, 1000, 8).Capacity());
  EXPECT_EQ(1U, Table(1, 8, 1).ValueLen());
}

TEST(BasicTable, NewKeyComesWithAZeroedBlockThatLaterCallsGiveAgain) {
  const Table table(1, 16, 5);
  Info created{7, nullptr, MemKind::ORDINARY};
  EXPECT_EQ(ENTRY_INSERTED, table.InsertOrFind(created));
  ASSERT_NE(nullptr, created.rawPtr);
  EXPECT_TRUE(std::all_of(created.rawPtr, created.rawPtr + 9, [](unsigned char byte) { return byte == 0; }));

  Info found{7, nullptr, MemKind::PREPARED};
  EXPECT_EQ(ENTRY_FOUND, table.InsertOrFind(found));
  EXPECT_EQ(created.rawPtr, found.rawPtr);
  EXPECT_EQ(MemKind::PREPARED, found.memKind) << "only a new block rewrites the kind";
  EXPECT_EQ(created.rawPtr, table.Find(7));
}

TEST(BasicTable, PreparedBlockIsOrdinaryWhileNothingIsPrepared) {
  const Table table(1, 16, 5);
  Info info{7, nullptr, MemKind::PREPARED};
  EXPECT_EQ(ENTRY_INSERTED, table.InsertOrFind(info));
  EXPECT_EQ(MemKind::ORDINARY, info.memKind);
}

TEST(BasicTable, FailedConstructionThrowsBadAllocAndKeepsNothing) {
  const long long heap = TestHooks::HeapBytesInUse();
  const long long mapped = TestHooks::MappedBytesInUse();
  bool poolFailed = false;
  bool tableFailed = false;
  KavoTest::ForEachFailingAllocation([&] {
    KavoTest::LogCapture capture(KavoSetLogSink);
    std::optional<Table> table;
    try {
      table.emplace(1, 100'000ULL, 8U);
      EXPECT_FALSE(KavoTest::FaultWasInjected());
      return;
    } catch (const std::bad_alloc&) {
    }
    EXPECT_TRUE(KavoTest::FaultWasInjected());
    EXPECT_EQ(heap, TestHooks::HeapBytesInUse());
    EXPECT_EQ(mapped, TestHooks::MappedBytesInUse());
    const auto lines = capture.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("EsConcurrentTable", lines.back().function);
    poolFailed = poolFailed || lines.back().message == "InitMemPool failed, ret = -3.";
    tableFailed = tableFailed || lines.back().message == "make_unique failed, exception caught:std::bad_alloc";
  });
  EXPECT_TRUE(poolFailed);
  EXPECT_TRUE(tableFailed);
}

}  // namespace
}  // namespace Qen
