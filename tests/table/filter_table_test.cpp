// Admission in the filter table, where memory is short or the threshold changes meanwhile.
#include <gtest/gtest.h>

#include <future>

#include "hash/hcore.h"
#include "hash/traits.h"
#include "kavo.h"
#include "platform/test_hooks.h"
#include "support/log_capture.h"
#include "support/parking.h"
#include "table/filter_es_concurrent_table.h"

namespace KavoTest {
namespace {

using Qen::ENTRY_FOUND;
using Qen::ENTRY_INSERTED;
using Qen::MemKind;
using FilterTable = Qen::FilterEsConcurrentTable<int, long, Qen::FHashValue, Qen::KTraits, Qen::FVTraits>;

struct Answer {
  int status = -100;
  unsigned char* block = nullptr;
  MemKind kind = MemKind::ORDINARY;
  bool operator==(const Answer&) const = default;
};

class FilterTableTest : public testing::Test {
 protected:
  ~FilterTableTest() override {
    Qen::TestHooks::FailAllocation(0);
    Qen::TestHooks::SetWaitLimit(0);
  }
  Answer Offer(long key, std::uint32_t occurrences = 1, MemKind kind = MemKind::ORDINARY) {
    FilterTable::FilterOperationInfo info{key, nullptr, kind, occurrences};
    const int status = m_table.InsertOrFindWithCounter(info);
    return {status, info.rawPtr, info.memKind};
  }
  // Without a block in stock the next one must be allocated.
  void UseUpStock() {
    for (long key = 1000; key < 1008; ++key) {
      FilterTable::FilterOperationInfo info{key, nullptr, MemKind::ORDINARY, 0};
      m_table.InsertOrFindForDefaultKey(info);
    }
  }

  LogCapture m_log;
  const FilterTable m_table{1, 8, 8};
};

TEST_F(FilterTableTest, TheCommonInsertOrFindCountsOneOccurrence) {
  unsigned long long count = 0;
  unsigned char* prepared = nullptr;
  ASSERT_EQ(KAVO_SUCCESS, m_table.PrepareMemForValues(count));
  ASSERT_EQ(KAVO_SUCCESS, m_table.GetMemForValue(0, prepared));
  m_table.SetFilterFreq(3);
  for (int occurrence = 1; occurrence <= 4; ++occurrence) {
    FilterTable::OperationInfo info{7, nullptr, MemKind::PREPARED};
    EXPECT_EQ(occurrence == 1 ? ENTRY_INSERTED : ENTRY_FOUND, m_table.InsertOrFind(info));
    EXPECT_EQ(occurrence < 3 ? nullptr : prepared, info.rawPtr);
    EXPECT_EQ(MemKind::PREPARED, info.memKind);
  }
  FilterTable::OperationInfo other{8, nullptr, MemKind::PREPARED};
  m_table.SetFilterFreq(1);
  EXPECT_EQ(ENTRY_INSERTED, m_table.InsertOrFind(other));
  EXPECT_EQ(MemKind::ORDINARY, other.memKind) << "no other was prepared";
}

TEST_F(FilterTableTest, TheRecordOfAKeyWhoseBlockFailedComesAgainAsNew) {
  UseUpStock();
  Offer(2);  // with a record of a run that has more
  Qen::TestHooks::FailAllocation(1, true);
  ASSERT_EQ(KAVO_NO_MEMORY, Offer(1, 100).status);
  Qen::TestHooks::FailAllocation(0);
  EXPECT_EQ((Answer{ENTRY_INSERTED, nullptr}), Offer(1)) << "nothing is counted yet";
  EXPECT_EQ(nullptr, Offer(1, 98).block);
  EXPECT_NE(nullptr, Offer(1).block);
}

// Under a threshold raised meanwhile the waiter has no right to admit: it gets the block of whoever does, or none.
class RaisedThreshold : public FilterTableTest, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(AdmissionFails, RaisedThreshold, testing::Bool());

TEST_P(RaisedThreshold, AWaiterGoesByTheOutcomeOfTheAdmissionUnderWay) {
  UseUpStock();
  m_table.SetFilterFreq(2);
  Offer(7);
  Parking admitting("FilterTable.Admitting");
  auto first = std::async(std::launch::async, [this] {
    Qen::TestHooks::FailAllocation(GetParam() ? 1 : 0, true);
    return Offer(7);
  });
  ASSERT_TRUE(admitting.WaitUntilParked());
  m_table.SetFilterFreq(1000);
  Parking waiting("FilterTable.WaitForBlock");
  auto second = std::async(std::launch::async, [this] { return Offer(7); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  Qen::TestHooks::SetWaitLimit(1);
  EXPECT_EQ((Answer{KAVO_FAILED, nullptr}), Offer(7)) << "a wait for a block that does not come ends";
  EXPECT_EQ(1U, m_log.Count("ValueAcquire overtime"));
  Qen::TestHooks::SetWaitLimit(0);
  waiting.Release();
  admitting.Release();
  const Answer admitted = first.get();
  EXPECT_EQ(GetParam() ? KAVO_NO_MEMORY : ENTRY_FOUND, admitted.status);
  EXPECT_EQ(GetParam(), admitted.block == nullptr);
  EXPECT_EQ((Answer{ENTRY_FOUND, admitted.block}), second.get());
}

}  // namespace
}  // namespace KavoTest
