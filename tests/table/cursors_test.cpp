// What becomes of the cursors of an export, and which are refused.
#include <gtest/gtest.h>

#include <vector>

#include "hash/traits.h"
#include "hash/value_record.h"
#include "kavo.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"
#include "support/log_capture.h"
#include "table/basic_es_concurrent_table.h"

namespace KavoTest {
namespace {

using BasicTable = Qen::BasicEsConcurrentTable<int, long, Qen::HashValue, Qen::KTraits, Qen::VTraits>;

// One table's export of all, `count` elements a batch.
struct Export {
  Export(const BasicTable& ofTable, unsigned count) : table(ofTable), elements(count) {}
  int Next() {
    KavoHtBatchInfo info{elements.data(), static_cast<unsigned>(elements.size()), KAVO_EXPORT_ALL, 0};
    return table.GetBatchNext(info, realNum, iter);
  }
  const BasicTable& table;
  std::vector<KavoHtBatchElement> elements;
  unsigned realNum = 77;
  void* iter = nullptr;
};

class Cursors : public testing::Test {
 protected:
  Cursors() { InsertTenKeys(m_table); }
  static void InsertTenKeys(const BasicTable& table) {
    for (long key = 0; key < 10; ++key) {
      BasicTable::OperationInfo info{key, nullptr, Qen::MemKind::ORDINARY};
      EXPECT_EQ(Qen::ENTRY_INSERTED, table.InsertOrFind(info));
    }
  }
  const BasicTable m_table{1, 16, 8};
  const long long m_heap = Qen::TestHooks::HeapBytesInUse();
  LogCapture m_log{Qen::SetLogSink};
};

TEST_F(Cursors, AreFreedWhenTheirIterationEndsOrWithTheTable) {
  for (int round = 0; round < 3; ++round) {
    Export all(m_table, 4);
    Qen::TestHooks::FailAllocation(1000);
    do {
      ASSERT_EQ(KAVO_SUCCESS, all.Next());
    } while (all.iter != nullptr);
    Qen::TestHooks::FailAllocation(0);
    EXPECT_EQ(1U, Qen::TestHooks::AllocationsSeen()) << "one allocation an iteration, none a batch";
    EXPECT_EQ(m_heap, Qen::TestHooks::HeapBytesInUse());
  }
  {
    const BasicTable other(2, 16, 8);
    InsertTenKeys(other);
    for (int i = 0; i < 5; ++i) {
      ASSERT_EQ(KAVO_SUCCESS, Export(other, 1).Next());
    }
  }
  EXPECT_EQ(m_heap, Qen::TestHooks::HeapBytesInUse());
}

TEST_F(Cursors, ThatCannotBeHadFailTheCallAndNothingElse) {
  Export all(m_table, 4);
  Qen::TestHooks::FailAllocation(1);
  EXPECT_EQ(KAVO_NO_MEMORY, all.Next());
  Qen::TestHooks::FailAllocation(0);
  EXPECT_EQ(nullptr, all.iter);
  EXPECT_EQ(0U, all.realNum);
  EXPECT_EQ(m_heap, Qen::TestHooks::HeapBytesInUse());
  ASSERT_EQ(std::vector<std::string>{"Memory application failed."}, m_log.Messages());
  EXPECT_EQ("GetBatchNext", m_log.Lines()[0].function);
  EXPECT_EQ(KAVO_LOG_LEVEL_EVENT, m_log.Lines()[0].level);
}

TEST_F(Cursors, OfAnotherTableOrEndedOrMadeUpAreRefusedUnread) {
  const BasicTable other(2, 16, 8);
  InsertTenKeys(other);
  Export foreign(other, 1);
  ASSERT_EQ(KAVO_SUCCESS, foreign.Next());
  Export ended(m_table, 9);
  ASSERT_EQ(KAVO_SUCCESS, ended.Next());
  void* const endedIter = ended.iter;
  ASSERT_EQ(KAVO_SUCCESS, ended.Next());
  ASSERT_EQ(nullptr, ended.iter);
  Export reopened(m_table, 4);  // the allocator gives it the memory of the ended one
  ASSERT_EQ(KAVO_SUCCESS, reopened.Next());
  Export refused(m_table, 100);
  for (void* const iter : {foreign.iter, endedIter, reinterpret_cast<void*>(8)}) {
    m_log.Clear();
    refused.iter = iter;
    EXPECT_EQ(KAVO_INVALID, refused.Next());
    EXPECT_EQ(iter, refused.iter);
    EXPECT_EQ(0U, refused.realNum);
    EXPECT_EQ(std::vector<std::string>{"iter is not a cursor of this table!"}, m_log.Messages());
  }
  EXPECT_EQ(KAVO_SUCCESS, foreign.Next()) << "its own table still takes it";
}

}  // namespace
}  // namespace KavoTest
