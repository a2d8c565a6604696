// The export state that each operation leaves in an entry's header, where no caller can see it.
#include <gtest/gtest.h>

#include <array>

#include "kavo.h"
#include "support/log_capture.h"
#include "table/value_header.h"

namespace Qen {
namespace {

class HeaderStates : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr unsigned LEN = 12;
  static constexpr unsigned OTHER = 4711;

  void SetUp() override { ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 64, LEN, GetParam())); }
  void TearDown() override { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1)); }

  unsigned char* Address(long key) {
    unsigned char* address = nullptr;
    unsigned len = 0;
    EXPECT_EQ(KAVO_SUCCESS, KavoLookup(1, key, &address, &len));
    return address;
  }
  unsigned State(long key) { return ValueHeader::Load(Address(key) - VALUE_HEADER_BYTES); }
  void Insert(long key, unsigned state) { ASSERT_EQ(KAVO_SUCCESS, KavoInsert(1, key, value.data(), LEN, 0, state)); }

  std::array<unsigned char, LEN> value{};
};
INSTANTIATE_TEST_SUITE_P(Types, HeaderStates, testing::Values(KAVO_TABLE_TYPE_BASIC, KAVO_TABLE_TYPE_FILTER));

TEST_P(HeaderStates, InsertSwapsTheFirstAndTheLastState) {
  Insert(10, 0);
  Insert(11, 1);
  Insert(12, 2);
  Insert(13, OTHER);
  EXPECT_EQ(2U, State(10));
  EXPECT_EQ(1U, State(11));
  EXPECT_EQ(0U, State(12));
  EXPECT_EQ(OTHER, State(13));
}

TEST_P(HeaderStates, RefusedInsertAndPlainLookupsLeaveIt) {
  Insert(1, OTHER);
  KavoTest::LogCapture quiet(KavoSetLogSink);
  EXPECT_EQ(KAVO_INVALID, KavoInsert(1, 1, value.data(), LEN, 0, 1));
  unsigned char* address = nullptr;
  unsigned len = 0;
  unsigned found = 0;
  EXPECT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(1, 1, &address, &len, &found, 0));
  EXPECT_EQ(OTHER, State(1));
  EXPECT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(1, 2, &address, &len, &found, 0));
  EXPECT_EQ(0U, State(2));
}

TEST_P(HeaderStates, ChangingOperationsMarkTheEntryChanged) {
  unsigned char* address = nullptr;
  unsigned len = 0;
  Insert(1, OTHER);
  EXPECT_EQ(KAVO_SUCCESS, KavoLookupForUpdate(1, 1, &address, &len));
  EXPECT_EQ(0U, State(1));
  Insert(2, OTHER);
  EXPECT_EQ(KAVO_SUCCESS, KavoUpdate(1, 2, value.data(), LEN));
  EXPECT_EQ(0U, State(2));
  Insert(3, OTHER);
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(1, 3, value.data(), LEN, 0));
  EXPECT_EQ(0U, State(3));
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(1, 4, value.data(), LEN, 0));
  EXPECT_EQ(0U, State(4));
}

// An update marks the entry before it copies, an insert-or-update after.
TEST_P(HeaderStates, FailedCopies) {
  KavoTest::LogCapture quiet(KavoSetLogSink);
  Insert(1, OTHER);
  EXPECT_EQ(KAVO_NO_MEMORY, KavoUpdate(1, 1, Address(1) + 1, LEN));
  EXPECT_EQ(0U, State(1));
  Insert(2, OTHER);
  EXPECT_EQ(KAVO_NO_MEMORY, KavoInsertOrUpdate(1, 2, Address(2) + 1, LEN, 0));
  EXPECT_EQ(OTHER, State(2));
}

// A thread that is alone gets blocks in the order of their addresses, so the place of the next value is known.
TEST_P(HeaderStates, InsertWhoseBytesOverlapTheNewValueLeavesAZeroedEntry) {
  Insert(1, 1);
  Insert(2, 1);
  unsigned char* const next = Address(2) + (Address(2) - Address(1));
  KavoTest::LogCapture capture(KavoSetLogSink);
  EXPECT_EQ(KAVO_NO_MEMORY, KavoInsert(1, 3, next + 1, LEN, 0, OTHER));
  ASSERT_EQ(2U, capture.Lines().size());
  EXPECT_EQ("memcpy_s failed, ret = [" + std::to_string(ERANGE) + "]", capture.Lines()[0].message);
  EXPECT_EQ("Insert", capture.Lines()[0].function);
  EXPECT_EQ("Insert failed, ret[-3]", capture.Lines()[1].message);
  EXPECT_EQ(next, Address(3));
  EXPECT_EQ(0U, State(3));
}

}  // namespace
}  // namespace Qen
