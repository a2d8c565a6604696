// The filter table from inside: when a key is admitted, what is counted, and what failures leave behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "hash/hcore.h"
#include "kavo.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"
#include "table/filter_test_table.h"

namespace KavoTest {
namespace {

using Qen::ENTRY_FOUND;
using Qen::ENTRY_INSERTED;
using Qen::MemKind;

constexpr unsigned LEN = 8;
constexpr std::uint32_t MAX_COUNT = 4'294'967'295U;

Answer OfferVirtually(const FilterTable& table, long key) {
  FilterTable::OperationInfo info{key, nullptr, MemKind::ORDINARY};
  const int status = table.InsertOrFind(info);
  return {status, info.rawPtr};
}

// The two operations that count one occurrence follow the same rules.
struct Counting {
  const char* name;
  Answer (*offer)(const FilterTable&, long);
};
class CountingOne : public testing::TestWithParam<Counting> {
 protected:
  Answer OfferOne(long key) { return GetParam().offer(m_table, key); }
  const FilterTable m_table{1, 64, LEN};
};
INSTANTIATE_TEST_SUITE_P(Operations, CountingOne,
                         testing::Values(Counting{"WithCounter",
                                                  [](const auto& table, long key) { return Offer(table, key); }},
                                         Counting{"Virtual", &OfferVirtually}),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_P(CountingOne, AdmitsAtTheHundredthOffer) {
  EXPECT_EQ((Answer{ENTRY_INSERTED, nullptr}), OfferOne(7));
  for (int i = 2; i <= 99; ++i) {
    ASSERT_EQ((Answer{ENTRY_FOUND, nullptr}), OfferOne(7)) << i;
  }
  EXPECT_EQ(99U, CountOf(m_table, 7));
  EXPECT_EQ(0, RecordOf(m_table, 7)->admitted.load());
  EXPECT_EQ(nullptr, m_table.GetValue(m_table.Find(7)));

  const Answer admitted = OfferOne(7);
  EXPECT_EQ(ENTRY_FOUND, admitted.status);
  ASSERT_NE(nullptr, admitted.block);
  EXPECT_TRUE(std::all_of(admitted.block, admitted.block + 4 + LEN, [](unsigned char byte) { return byte == 0; }));
  EXPECT_EQ(1, RecordOf(m_table, 7)->admitted.load());
  EXPECT_EQ(admitted.block, m_table.GetValue(m_table.Find(7)));
  EXPECT_EQ(admitted, OfferOne(7));
  EXPECT_EQ(101U, CountOf(m_table, 7));
}

TEST_P(CountingOne, FrequenciesZeroAndOneAdmitTheFirstOccurrence) {
  for (const std::uint32_t freq : {0U, 1U}) {
    m_table.SetFilterFreq(freq);
    EXPECT_EQ(freq, m_table.FilterFreq());
    const Answer created = OfferOne(static_cast<long>(freq));
    EXPECT_EQ(ENTRY_INSERTED, created.status);
    EXPECT_NE(nullptr, created.block);
    EXPECT_EQ(1U, CountOf(m_table, static_cast<long>(freq)));
  }
}

TEST_P(CountingOne, ThresholdSetMeanwhileDecidesFromTheNextOfferOn) {
  for (int i = 0; i < 50; ++i) {
    OfferOne(1);
    OfferOne(2);
  }
  m_table.SetFilterFreq(10);
  EXPECT_EQ(nullptr, m_table.GetValue(m_table.Find(1))) << "admits nothing by itself";
  const Answer admitted = OfferOne(1);
  EXPECT_NE(nullptr, admitted.block);
  m_table.SetFilterFreq(1000);
  EXPECT_EQ(admitted, OfferOne(1)) << "what is admitted stays so";
  EXPECT_EQ(nullptr, OfferOne(2).block);
}

class FilterTableTest : public testing::Test {
 protected:
  // No allocation of this thread succeeds while it lives.
  struct NoMemory {
    NoMemory() { Qen::TestHooks::FailAllocation(1, true); }
    ~NoMemory() { Qen::TestHooks::FailAllocation(0); }
  };
  LogCapture m_log{Qen::SetLogSink};
  const FilterTable m_table{1, 64, LEN};
};

TEST_F(FilterTableTest, FirstOfferAdmitsIfItsOccurrencesAreEnough) {
  long key = 0;
  for (const std::uint32_t occurrences : {1U, 99U, 100U, 150U, MAX_COUNT}) {
    const Answer answer = Offer(m_table, ++key, occurrences);
    EXPECT_EQ(ENTRY_INSERTED, answer.status);
    EXPECT_EQ(occurrences >= 100, answer.block != nullptr) << occurrences;
    EXPECT_EQ(occurrences, CountOf(m_table, key));
  }
}

TEST_F(FilterTableTest, CountEndsAtItsMaximumAndCanStillAdmit) {
  m_table.SetFilterFreq(MAX_COUNT);
  EXPECT_EQ(nullptr, Offer(m_table, 1, MAX_COUNT - 5).block);
  const Answer admitted = Offer(m_table, 1, 10);
  EXPECT_NE(nullptr, admitted.block);
  EXPECT_EQ(MAX_COUNT, CountOf(m_table, 1));
  EXPECT_EQ(admitted, Offer(m_table, 1, MAX_COUNT));
  EXPECT_EQ(MAX_COUNT, CountOf(m_table, 1));
}

TEST_F(FilterTableTest, DefaultKeyIsAdmittedAtOnceAndNeverCounted) {
  const Answer created = OfferDefault(m_table, 1);
  EXPECT_EQ(ENTRY_INSERTED, created.status);
  ASSERT_NE(nullptr, created.block);
  EXPECT_EQ((Answer{ENTRY_FOUND, created.block}), OfferDefault(m_table, 1));
  EXPECT_EQ(0U, CountOf(m_table, 1));
  Offer(m_table, 2, 5);
  EXPECT_EQ((Answer{ENTRY_FOUND, nullptr}), OfferDefault(m_table, 2));
  EXPECT_EQ(5U, CountOf(m_table, 2));
}

// Whatever a caller brings, or asks for, a key that is there keeps what it has.
TEST_F(FilterTableTest, InsertsWithAndWithoutAValue) {
  unsigned char bytes[LEN] = {1, 2, 3, 4, 5, 6, 7, 8};
  const auto insert = [&](long key, unsigned char* value, bool orUpdate) {
    Qen::NewValue newValue{value, 5};
    FilterInfo info{key, value, MemKind::ORDINARY, 150, &newValue};
    const int status = (orUpdate ? m_table.InsertOrUpdateFilterValue(info) : m_table.InsertValue(info));
    return Answer{status, info.rawPtr};
  };
  for (const bool orUpdate : {false, true}) {
    const long counted = orUpdate ? 10 : 20;
    EXPECT_EQ((Answer{ENTRY_INSERTED, nullptr}), insert(counted, nullptr, orUpdate));
    EXPECT_EQ(150U, CountOf(m_table, counted)) << "without a value nothing is admitted, whatever the count";
    EXPECT_EQ((Answer{ENTRY_FOUND, nullptr}), insert(counted, bytes, true));
    EXPECT_EQ(ENTRY_FOUND, insert(counted, bytes, false).status);
    EXPECT_EQ(150U, CountOf(m_table, counted));
    EXPECT_EQ(nullptr, m_table.GetValue(m_table.Find(counted)));
    EXPECT_NE(nullptr, Offer(m_table, counted).block) << "the next occurrence admits";

    const long admitted = counted + 1;
    const Answer created = insert(admitted, bytes, orUpdate);
    EXPECT_EQ(ENTRY_INSERTED, created.status);
    ASSERT_NE(nullptr, created.block);
    EXPECT_EQ(0, std::memcmp(Qen::ValueBytes(created.block), bytes, LEN));
    EXPECT_EQ(5U, Qen::ValueHeader::Load(created.block));
    EXPECT_EQ(150U, CountOf(m_table, admitted));
    EXPECT_EQ((Answer{ENTRY_FOUND, created.block}), insert(admitted, bytes, true));
    EXPECT_EQ(150U, CountOf(m_table, admitted));
  }
}

TEST_F(FilterTableTest, UpdateOfACountedKeyIsRefused) {
  unsigned char bytes[LEN] = {1};
  Offer(m_table, 1);
  EXPECT_EQ(KAVO_INVALID, m_table.UpdateValue(m_table.Find(1), bytes, LEN));
  ASSERT_EQ(1U, m_log.Lines().size());
  EXPECT_EQ("rawPtr is nullptr!", m_log.Lines()[0].message);
  EXPECT_EQ("UpdateValue", m_log.Lines()[0].function);
  const Answer admitted = Offer(m_table, 1, 100);
  EXPECT_EQ(KAVO_SUCCESS, m_table.UpdateValue(m_table.Find(1), bytes, LEN));
  EXPECT_EQ(1, Qen::ValueBytes(admitted.block)[0]);
}

// Two prepared blocks: the keys adopt them in the order of their admission, and counting takes none.
TEST_F(FilterTableTest, BlocksAreTakenAtAdmission) {
  unsigned long long count = 0;
  ASSERT_EQ(KAVO_SUCCESS, m_table.PrepareMemForValues(count));
  unsigned char* prepared[2] = {};
  ASSERT_EQ(KAVO_SUCCESS, m_table.GetMemForValue(0, prepared[0]));
  ASSERT_EQ(KAVO_SUCCESS, m_table.GetMemForValue(1, prepared[1]));
  const auto offer = [&](long key) {
    FilterInfo info{key, nullptr, MemKind::PREPARED, 60};
    m_table.InsertOrFindWithCounter(info);
    return info;
  };
  for (const long key : {1, 2, 3}) {
    EXPECT_EQ(MemKind::PREPARED, offer(key).memKind) << "not rewritten without a block";
  }
  EXPECT_EQ(prepared[0], offer(3).rawPtr);
  EXPECT_EQ(prepared[1], offer(1).rawPtr);
  EXPECT_EQ(MemKind::ORDINARY, offer(2).memKind);
}

TEST_F(FilterTableTest, GrowthKeepsRecordsCountsAndBlocks) {
  constexpr long KEYS = 1000;
  std::vector<const Qen::FilterRecord*> records;
  std::vector<unsigned char*> blocks;
  for (long key = 0; key < KEYS; ++key) {
    blocks.push_back(Offer(m_table, key, 90 + static_cast<std::uint32_t>(key % 20)).block);
    records.push_back(RecordOf(m_table, key));
  }
  for (long key = 0; key < KEYS; ++key) {
    const auto at = static_cast<std::size_t>(key);
    EXPECT_EQ(records[at], RecordOf(m_table, key)) << key;
    const Answer again = Offer(m_table, key);
    EXPECT_EQ(91 + static_cast<std::uint32_t>(key % 20), CountOf(m_table, key));
    EXPECT_EQ(key % 20 >= 9, again.block != nullptr) << key;
    EXPECT_TRUE(blocks[at] == nullptr || blocks[at] == again.block) << key;
  }
}

TEST_F(FilterTableTest, FailedAdmissionKeepsTheCountAndTheNextOfferAdmits) {
  UseUpStock(m_table);
  Qen::TestHooks::SetWaitLimit(1);  // there is nobody to wait for
  EXPECT_EQ(nullptr, Offer(m_table, 1, 99).block);
  {
    const NoMemory noMemory;
    EXPECT_EQ((Answer{KAVO_NO_MEMORY, nullptr}), Offer(m_table, 1));
    EXPECT_EQ((Answer{KAVO_NO_MEMORY, nullptr}), OfferVirtually(m_table, 1));
  }
  EXPECT_EQ(2U, m_log.Count("pool GetMem failed, ret = [-3]"));
  EXPECT_EQ(101U, CountOf(m_table, 1));
  EXPECT_EQ(0, RecordOf(m_table, 1)->admitted.load());
  const Answer admitted = Offer(m_table, 1);
  EXPECT_EQ(ENTRY_FOUND, admitted.status);
  EXPECT_NE(nullptr, admitted.block);
  Qen::TestHooks::SetWaitLimit(0);
}

// The fault hits the record or the block; the key is absent and may be offered again.
TEST_F(FilterTableTest, FailedFirstOfferLeavesNoTrace) {
  const struct {
    int (*offer)(const FilterTable&, long);
    const char* step;  // that makes the record
  } kinds[] = {{[](const auto& table, long key) { return Offer(table, key, 100).status; }, "operator()"},
               {[](const auto& table, long key) { return OfferDefault(table, key).status; }, "operator()"},
               {[](const auto& table, long key) {
                  unsigned char value = 0;
                  FilterInfo info{key, &value, MemKind::ORDINARY, 1};
                  return table.InsertValue(info);
                },
                "AssignFilterValue"}};
  for (const auto& kind : kinds) {
    const FilterTable table(1, 64, LEN);
    UseUpStock(table);
    unsigned recordFailures = 0;
    unsigned blockFailures = 0;
    // Enough keys that the next runs of records and of blocks are needed.
    for (long key = 0; key < 100; ++key) {
      ForEachFailingAllocation([&] {
        m_log.Clear();
        const int status = kind.offer(table, key);
        if (status == ENTRY_INSERTED) {
          return;
        }
        EXPECT_EQ(KAVO_NO_MEMORY, status);
        EXPECT_EQ(nullptr, table.Find(key));
        const auto lines = m_log.Lines();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ("assignValue failed!", lines.back().message);
        const LogLine& cause = lines[lines.size() - 2];
        if (cause.message == "pool GetMem failed, ret = [-3]") {
          ++blockFailures;
        } else {
          ++recordFailures;
          EXPECT_EQ("make_unique failed, exception caught:std::bad_alloc", cause.message);
          EXPECT_EQ(KAVO_LOG_LEVEL_EVENT, cause.level);
          EXPECT_EQ(kind.step, cause.function);
        }
      });
      EXPECT_NE(nullptr, RecordOf(table, key)) << key;
    }
    EXPECT_GT(recordFailures, 0U);
    EXPECT_GT(blockFailures, 0U);
  }
}

// Offers that fail for lack of a block again and again use up no records: those are given back.
TEST_F(FilterTableTest, RecordOfAKeyWhoseBlockFailedIsUsedAgain) {
  UseUpStock(m_table);
  for (int i = 0; i < 3000; ++i) {
    const NoMemory noMemory;
    m_log.Clear();
    ASSERT_EQ(KAVO_NO_MEMORY, OfferDefault(m_table, 1).status);
    ASSERT_EQ(1U, m_log.Count("pool GetMem failed, ret = [-3]")) << "attempt " << i << " got no record";
  }
  EXPECT_EQ(ENTRY_INSERTED, OfferDefault(m_table, 1).status);
  EXPECT_EQ(0U, CountOf(m_table, 1)) << "the record is as new";
}

}  // namespace
}  // namespace KavoTest
