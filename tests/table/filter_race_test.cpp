// Each race of a filter table, with one thread parked at the point where it would do harm.
#include <gtest/gtest.h>

#include <future>

#include "hash/hcore.h"
#include "kavo.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"
#include "support/log_capture.h"
#include "support/parking.h"
#include "table/filter_test_table.h"

namespace KavoTest {
namespace {

using Qen::ENTRY_FOUND;
using Qen::ENTRY_INSERTED;

template <class Work>
auto Background(Work work) {
  return std::async(std::launch::async, work);
}

class FilterRace : public testing::Test {
 protected:
  // A key that the next occurrence admits.
  void SetUp() override {
    m_table.SetFilterFreq(2);
    UseUpStock(m_table);
    ASSERT_EQ((Answer{ENTRY_INSERTED, nullptr}), Offer(m_table, KEY));
  }
  std::future<Answer> OfferInBackground(bool blockFails = false) {
    return Background([this, blockFails] {
      Qen::TestHooks::FailAllocation(blockFails ? 1 : 0, true);
      const Answer answer = Offer(m_table, KEY);
      Qen::TestHooks::FailAllocation(0);
      return answer;
    });
  }

  static constexpr long KEY = 7;
  LogCapture m_log{Qen::SetLogSink};
  const FilterTable m_table{1, 8, 8};
};

TEST_F(FilterRace, OneOfTwoAdmittersTakesTheBlockAndTheOtherWaitsForIt) {
  Parking admitting("FilterTable.Admitting");
  auto first = OfferInBackground();
  ASSERT_TRUE(admitting.WaitUntilParked());
  Parking waiting("FilterTable.WaitForBlock");
  auto second = OfferInBackground();
  ASSERT_TRUE(waiting.WaitUntilParked());
  // Nobody else waits.
  EXPECT_EQ(nullptr, m_table.GetValue(m_table.Find(KEY)));
  EXPECT_EQ((Answer{ENTRY_FOUND, nullptr}), OfferDefault(m_table, KEY));
  waiting.Release();
  admitting.Release();
  const Answer admitted = first.get();
  EXPECT_EQ(ENTRY_FOUND, admitted.status);
  ASSERT_NE(nullptr, admitted.block);
  EXPECT_EQ(admitted, second.get());
  EXPECT_EQ(admitted, Offer(m_table, KEY));
  EXPECT_EQ(1U, admitting.Passages());
  EXPECT_EQ(4U, CountOf(m_table, KEY));
}

TEST_F(FilterRace, OfTwoThatMayAdmitOneDoes) {
  Parking first("FilterTable.MayAdmit", 1);
  Parking second("FilterTable.MayAdmit", 2);
  Parking admitting("FilterTable.Admitting", 0);  // counts only
  auto one = OfferInBackground();
  ASSERT_TRUE(first.WaitUntilParked());
  auto other = OfferInBackground();
  ASSERT_TRUE(second.WaitUntilParked());
  first.Release();
  second.Release();
  const Answer admitted = one.get();
  EXPECT_NE(nullptr, admitted.block);
  EXPECT_EQ(admitted, other.get());
  EXPECT_EQ(admitted, Offer(m_table, KEY));
  EXPECT_EQ(1U, admitting.Passages());
}

TEST_F(FilterRace, WaiterTakesOverAFailedAdmission) {
  Parking admitting("FilterTable.Admitting");
  auto first = OfferInBackground(true);
  ASSERT_TRUE(admitting.WaitUntilParked());
  Parking waiting("FilterTable.WaitForBlock");
  auto second = OfferInBackground();
  ASSERT_TRUE(waiting.WaitUntilParked());
  admitting.Release();
  EXPECT_EQ((Answer{KAVO_NO_MEMORY, nullptr}), first.get());
  waiting.Release();
  const Answer admitted = second.get();
  EXPECT_EQ(ENTRY_FOUND, admitted.status);
  EXPECT_NE(nullptr, admitted.block);
  EXPECT_EQ(2U, admitting.Passages());
  EXPECT_EQ(3U, CountOf(m_table, KEY)) << "the failed call's occurrence counts too";
}

// Under a threshold raised meanwhile the waiter has no right to admit: it gets the block of whoever does, or none.
class RaisedThreshold : public FilterRace, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(AdmissionFails, RaisedThreshold, testing::Bool());

TEST_P(RaisedThreshold, WaiterGoesByTheOutcomeOfTheAdmissionUnderWay) {
  Parking admitting("FilterTable.Admitting");
  auto first = OfferInBackground(GetParam());
  ASSERT_TRUE(admitting.WaitUntilParked());
  m_table.SetFilterFreq(1000);
  Parking waiting("FilterTable.WaitForBlock");
  auto second = OfferInBackground();
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  admitting.Release();
  const Answer admitted = first.get();
  EXPECT_EQ(GetParam() ? KAVO_NO_MEMORY : ENTRY_FOUND, admitted.status);
  EXPECT_EQ((Answer{ENTRY_FOUND, admitted.block}), second.get());
  EXPECT_EQ(GetParam(), admitted.block == nullptr);
}

TEST_F(FilterRace, WaitForABlockThatDoesNotComeEnds) {
  Parking admitting("FilterTable.Admitting");
  auto first = OfferInBackground();
  ASSERT_TRUE(admitting.WaitUntilParked());
  Qen::TestHooks::SetWaitLimit(1);
  EXPECT_EQ((Answer{KAVO_FAILED, nullptr}), Offer(m_table, KEY));
  Qen::TestHooks::SetWaitLimit(0);
  ASSERT_EQ(1U, m_log.Count("ValueAcquire overtime"));
  EXPECT_EQ("ValueAcquire", m_log.Lines().back().function);
  admitting.Release();
  EXPECT_EQ(first.get(), Offer(m_table, KEY));
}

TEST_F(FilterRace, OfferOfAKeyWhoseRecordIsBeingMadeWaitsForItAndCountsOnce) {
  constexpr long NEW_KEY = 9;
  Parking attaching("Driver.Attaching");
  auto first = Background([this] { return Offer(m_table, NEW_KEY); });
  ASSERT_TRUE(attaching.WaitUntilParked());
  EXPECT_EQ(nullptr, m_table.Find(NEW_KEY));
  Parking waiting("Driver.WaitForRecord");
  auto second = Background([this] { return Offer(m_table, NEW_KEY); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  attaching.Release();
  EXPECT_EQ((Answer{ENTRY_INSERTED, nullptr}), first.get());
  const Answer admitted = second.get();
  EXPECT_EQ(ENTRY_FOUND, admitted.status);
  EXPECT_NE(nullptr, admitted.block);
  EXPECT_EQ(2U, CountOf(m_table, NEW_KEY));
}

// A table of its own that grows while a thread stands at a point of the move.
class FilterMove : public testing::Test {
 protected:
  // Counts new keys until the table has grown.
  std::future<void> GrowInBackground() {
    return Background([this] {
      for (long key = 1000; key < 1100; ++key) {
        EXPECT_EQ(ENTRY_INSERTED, Offer(m_table, key).status);
      }
    });
  }

  const FilterTable m_table{1, 8, 8};
  LogCapture m_log{Qen::SetLogSink};
};

TEST_F(FilterMove, NewKeyThatTheMoverWaitsForIsCreatedOnceAndKeepsItsCount) {
  Parking attaching("Driver.Attaching");
  auto inserter = Background([this] { return Offer(m_table, 3, 60); });
  ASSERT_TRUE(attaching.WaitUntilParked());
  Parking waiting("Mover.WaitForRecord");
  auto grower = GrowInBackground();
  ASSERT_TRUE(waiting.WaitUntilParked());
  EXPECT_EQ(nullptr, m_table.Find(3));
  waiting.Release();
  attaching.Release();
  EXPECT_EQ((Answer{ENTRY_INSERTED, nullptr}), inserter.get());
  grower.get();
  EXPECT_EQ(60U, CountOf(m_table, 3));
  EXPECT_NE(nullptr, Offer(m_table, 3, 40).block);
}

// The bucket's copies are made, but it is not marked moved: calls still go to the old ones.
TEST_F(FilterMove, OccurrencesAndAdmissionInAMovedBucketAreNotLost) {
  Offer(m_table, 0, 60);
  const Qen::FilterRecord* const record = RecordOf(m_table, 0);
  Parking copied("Mover.Copied");  // bucket 0 moves first
  auto grower = GrowInBackground();
  ASSERT_TRUE(copied.WaitUntilParked());
  const Answer admitted = Offer(m_table, 0, 40);
  EXPECT_EQ(ENTRY_FOUND, admitted.status);
  EXPECT_NE(nullptr, admitted.block);
  copied.Release();
  grower.get();
  EXPECT_EQ(record, RecordOf(m_table, 0));
  EXPECT_EQ(admitted, Offer(m_table, 0));
  EXPECT_EQ(101U, CountOf(m_table, 0));
}

}  // namespace
}  // namespace KavoTest
