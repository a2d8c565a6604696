// Export from inside the table classes: which entries a mode takes, what it writes, and what becomes of cursors.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "hash/traits.h"
#include "hash/value_record.h"
#include "kavo.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"
#include "table/basic_es_concurrent_table.h"
#include "table/filter_test_table.h"
#include "table/value_header.h"

namespace KavoTest {
namespace {

namespace ValueHeader = Qen::ValueHeader;
using BasicTable = Qen::BasicEsConcurrentTable<int, long, Qen::HashValue, Qen::KTraits, Qen::VTraits>;

constexpr unsigned UNTOUCHED = 0xABCD;

void Insert(const BasicTable& table, long key) {
  BasicTable::OperationInfo info{key, nullptr, Qen::MemKind::ORDINARY};
  ASSERT_EQ(Qen::ENTRY_INSERTED, table.InsertOrFind(info));
}
void Insert(const FilterTable& table, long key) {
  ASSERT_EQ(Qen::ENTRY_INSERTED, OfferDefault(table, key).status);
}

struct Batch {
  Batch(unsigned eleNum, unsigned mode)
      : elements(eleNum, KavoHtBatchElement{-7, nullptr, UNTOUCHED}), info{elements.data(), eleNum, mode, UNTOUCHED} {}
  template <class Table>
  int Next(const Table& table) {
    return table.GetBatchNext(info, realNum, iter);
  }
  std::vector<KavoHtBatchElement> elements;
  KavoHtBatchInfo info;
  unsigned realNum = UNTOUCHED;
  void* iter = nullptr;
};

template <class Table>
std::multiset<long> KeysIn(const Table& table, unsigned mode) {
  Batch batch(100, mode);
  EXPECT_EQ(KAVO_SUCCESS, batch.Next(table));
  EXPECT_EQ(nullptr, batch.iter);
  std::multiset<long> keys;
  for (unsigned i = 0; i < batch.realNum; ++i) {
    keys.insert(batch.elements[i].key);
  }
  return keys;
}

// Every mode on every state, one entry of each: what is taken, and what the entry's state is afterwards.
template <class Table>
void ExpectSelection(const Table& table, bool anyModeTakesItsState) {
  const unsigned states[] = {0, 1, 2, 3, 7, 4'000'000'000U};
  const unsigned modes[] = {0, 1, 2, 3, 4, 7, 4'000'000'000U};
  Insert(table, 1);
  auto* const record = table.Find(1);
  unsigned char* const block = table.GetValue(record);
  for (const unsigned mode : modes) {
    for (const unsigned state : states) {
      SCOPED_TRACE("mode " + std::to_string(mode) + ", state " + std::to_string(state));
      bool taken = false;
      switch (mode) {
        case KAVO_EXPORT_ALL:
          taken = true;
          break;
        case KAVO_EXPORT_MARKED:
          taken = state == 1;
          break;
        case KAVO_EXPORT_UNMARKED_MARK:
        case KAVO_EXPORT_UNMARKED:
          taken = state == 0;
          break;
        default:
          taken = anyModeTakesItsState && state == mode;
      }
      ValueHeader::Store(block, state);
      EXPECT_EQ(taken, table.IsMeetRequirements(mode, record));
      EXPECT_EQ(mode == KAVO_EXPORT_UNMARKED_MARK && taken ? 1 : state, ValueHeader::Load(block));
      ValueHeader::Store(block, state);
      EXPECT_EQ(taken ? std::multiset<long>{1} : std::multiset<long>{}, KeysIn(table, mode));
    }
  }
}

TEST(Export, ModesOfABasicTableSelectByState) {
  ExpectSelection(BasicTable(1, 16, 8), false);
}

TEST(Export, ModesOfAFilterTableSelectByStateAndByNumber) {
  ExpectSelection(FilterTable(1, 16, 8), true);
}

TEST(Export, BasicElementsHaveKeyAndValueOnly) {
  const BasicTable table(1, 16, 8);
  Insert(table, 5);
  Batch batch(3, KAVO_EXPORT_ALL);
  ASSERT_EQ(KAVO_SUCCESS, batch.Next(table));
  EXPECT_EQ(1U, batch.realNum);
  EXPECT_EQ(unsigned{KAVO_TABLE_TYPE_BASIC}, batch.info.tableType);
  EXPECT_EQ(5, batch.elements[0].key);
  EXPECT_EQ(table.GetValue(table.Find(5)) + 4, batch.elements[0].value);
  EXPECT_EQ(UNTOUCHED, batch.elements[0].count);
  EXPECT_EQ(-7, batch.elements[1].key) << "nothing is written behind the last element";
}

TEST(Export, KeysThatAreOnlyCountedAreInEveryModeWithoutAValue) {
  const FilterTable table(1, 16, 8);
  Offer(table, 1, 42);   // counted
  Offer(table, 2, 150);  // admitted
  OfferDefault(table, 3);
  ValueHeader::Store(table.GetValue(table.Find(3)), ValueHeader::EXPORTED);
  for (const unsigned mode : {0U, 1U, 2U, 3U, 4U, 7U}) {
    SCOPED_TRACE(mode);
    Batch batch(4, mode);
    ASSERT_EQ(KAVO_SUCCESS, batch.Next(table));
    EXPECT_EQ(unsigned{KAVO_TABLE_TYPE_FILTER}, batch.info.tableType);
    bool seen = false;
    for (unsigned i = 0; i < batch.realNum; ++i) {
      const KavoHtBatchElement& element = batch.elements[i];
      seen = seen || element.key == 1;
      EXPECT_EQ(element.key == 1 ? 42U : element.key == 2 ? 150U : 0U, element.count);
      EXPECT_EQ(element.key == 1 ? nullptr : table.GetValue(table.Find(element.key)) + 4, element.value);
    }
    EXPECT_TRUE(seen);
    EXPECT_EQ(mode == 0 ? 3U : mode < 3 ? 2U : 1U, batch.realNum);  // mode 2 left nothing unmarked
  }
  unsigned long long size = 0;
  unsigned valueLen = 0;
  table.GetTableSizeAndVl(size, valueLen, false);
  EXPECT_EQ(3U, size);
  EXPECT_EQ(8U, valueLen);
  table.GetTableSizeAndVl(size, valueLen, true);
  EXPECT_EQ(2U, size);
}

// An insert that got no memory leaves a key without a record.
TEST(Export, KeysWithoutARecordAreLeftOutAndNotCounted) {
  const FilterTable filter(1, 8, 8);
  const BasicTable basic(2, 8, 8);
  LogCapture log(Qen::SetLogSink);
  UseUpStock(filter);
  for (long key = 0; key < 8; ++key) {
    Insert(basic, key);
  }
  unsigned withoutRecord = 0;
  const auto expect = [&withoutRecord](const auto& table, long key, std::size_t others) {
    if (table.Find(key) == nullptr) {
      ++withoutRecord;
    } else {
      ++others;
    }
    for (const unsigned mode : {0U, 3U}) {
      EXPECT_EQ(others, KeysIn(table, mode).size());
    }
    unsigned long long size = 0;
    unsigned valueLen = 0;
    table.GetTableSizeAndVl(size, valueLen, true);
    EXPECT_EQ(others, size);
  };
  Qen::TestHooks::FailAllocation(1, true);
  OfferDefault(filter, 100);
  BasicTable::OperationInfo info{100, nullptr, Qen::MemKind::ORDINARY};
  basic.InsertOrFind(info);
  Qen::TestHooks::FailAllocation(0);
  expect(filter, 100, 8);
  expect(basic, 100, 8);
  EXPECT_EQ(2U, withoutRecord);
}

class Cursors : public testing::Test {
 protected:
  void SetUp() override {
    for (long key = 0; key < 10; ++key) {
      Insert(m_table, key);
    }
    m_heap = Qen::TestHooks::HeapBytesInUse();
  }
  long long m_heap = 0;
  const BasicTable m_table{1, 16, 8};
};

TEST_F(Cursors, AreFreedWhenTheirIterationEnds) {
  for (int round = 0; round < 3; ++round) {
    Batch batch(4, KAVO_EXPORT_ALL);
    Qen::TestHooks::FailAllocation(1000);
    ASSERT_EQ(KAVO_SUCCESS, batch.Next(m_table));
    EXPECT_GT(Qen::TestHooks::HeapBytesInUse(), m_heap);
    while (batch.iter != nullptr) {
      ASSERT_EQ(KAVO_SUCCESS, batch.Next(m_table));
    }
    Qen::TestHooks::FailAllocation(0);
    EXPECT_EQ(1U, Qen::TestHooks::AllocationsSeen()) << "one allocation an iteration, none a batch";
    EXPECT_EQ(m_heap, Qen::TestHooks::HeapBytesInUse());
  }
}

TEST(CursorsOfATable, ThatAreOpenAreFreedWithIt) {
  const long long heap = Qen::TestHooks::HeapBytesInUse();
  {
    const BasicTable table(1, 16, 8);
    Insert(table, 1);
    for (int i = 0; i < 5; ++i) {
      Batch batch(1, KAVO_EXPORT_ALL);
      ASSERT_EQ(KAVO_SUCCESS, batch.Next(table));
      ASSERT_NE(nullptr, batch.iter);
    }
  }
  EXPECT_EQ(heap, Qen::TestHooks::HeapBytesInUse());
}

TEST_F(Cursors, ThatCannotBeHadFailTheCallAndNothingElse) {
  LogCapture log(Qen::SetLogSink);
  const auto faults = ForEachFailingAllocation([&] {
    log.Clear();
    Batch batch(4, KAVO_EXPORT_ALL);
    const int ret = batch.Next(m_table);
    if (!FaultWasInjected()) {
      EXPECT_EQ(KAVO_SUCCESS, ret);
      return;
    }
    EXPECT_EQ(KAVO_NO_MEMORY, ret);
    EXPECT_EQ(nullptr, batch.iter);
    EXPECT_EQ(0U, batch.realNum);
    EXPECT_EQ(m_heap, Qen::TestHooks::HeapBytesInUse());
    ASSERT_EQ(1U, log.Lines().size());
    EXPECT_EQ("Memory application failed.", log.Lines()[0].message);
    EXPECT_EQ("GetBatchNext", log.Lines()[0].function);
    EXPECT_EQ(KAVO_LOG_LEVEL_EVENT, log.Lines()[0].level);
  });
  EXPECT_EQ(1U, faults);
}

TEST_F(Cursors, OfAnotherTableOrEndedOrMadeUpAreRefusedUnread) {
  const BasicTable other(2, 16, 8);
  Insert(other, 1);
  Batch foreign(1, KAVO_EXPORT_ALL);
  ASSERT_EQ(KAVO_SUCCESS, foreign.Next(other));
  Batch begun(4, KAVO_EXPORT_ALL);
  ASSERT_EQ(KAVO_SUCCESS, begun.Next(m_table));
  void* const endedIter = begun.iter;
  while (begun.iter != nullptr) {
    ASSERT_EQ(KAVO_SUCCESS, begun.Next(m_table));
  }
  Batch reopened(4, KAVO_EXPORT_ALL);  // the allocator gives it the memory of the ended one
  ASSERT_EQ(KAVO_SUCCESS, reopened.Next(m_table));
  Batch refused(100, KAVO_EXPORT_ALL);
  LogCapture log(Qen::SetLogSink);
  for (void* const iter : {foreign.iter, endedIter, reinterpret_cast<void*>(8)}) {
    log.Clear();
    refused.iter = iter;
    EXPECT_EQ(KAVO_INVALID, refused.Next(m_table));
    EXPECT_EQ(iter, refused.iter);
    EXPECT_EQ(0U, refused.realNum);
    ASSERT_EQ(1U, log.Lines().size());
    EXPECT_EQ("iter is not a cursor of this table!", log.Lines()[0].message);
    EXPECT_EQ("GetBatchNext", log.Lines()[0].function);
  }
  EXPECT_EQ(KAVO_SUCCESS, foreign.Next(other)) << "its own table still takes it";
}

}  // namespace
}  // namespace KavoTest
