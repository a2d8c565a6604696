// Filter tables, seen through the exported functions only.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include "interface/status_cases.h"
#include "kavo.h"

namespace {

constexpr unsigned FILTER = 7;
constexpr unsigned MAPPED_FILTER = 70'000;
constexpr unsigned BASIC = 8;
constexpr unsigned UNUSED = 9;
constexpr long ADMITTED = 3;
constexpr long COUNTED = 4;
constexpr long ABSENT = 5;

class Filter : public KavoTest::StatusCases {
 protected:
  void SetUp() override {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(BASIC, 8, LEN, KAVO_TABLE_TYPE_BASIC));
    for (const unsigned table : {FILTER, MAPPED_FILTER}) {
      ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(table, 100, LEN, KAVO_TABLE_TYPE_FILTER));
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(table, ADMITTED, value.data(), LEN, 0, 1));
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(table, COUNTED, nullptr, 0, 1, 1));
    }
  }
  void TearDown() override {
    for (const unsigned table : {FILTER, MAPPED_FILTER, BASIC}) {
      EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(table));
    }
  }

  struct Offered {
    int status = -100;
    unsigned char* address = nullptr;
    unsigned len = 4711;
    unsigned isFind = 4712;
  };
  static Offered Offer(long key, unsigned filterCount, unsigned table = FILTER) {
    static unsigned char untouched = 0;
    Offered offered{-100, &untouched, 4711, 4712};
    offered.status = KavoLookupOrInsert(table, key, &offered.address, &offered.len, &offered.isFind, filterCount);
    return offered;
  }
  static void ExpectCountedOnly(const Offered& offered) {
    EXPECT_EQ(KAVO_SUCCESS, offered.status);
    EXPECT_EQ(nullptr, offered.address);
    EXPECT_EQ(4711U, offered.len);
    EXPECT_EQ(1U, offered.isFind) << "also for a key that this call created";
  }
  static void ExpectValue(const Offered& offered, unsigned isFind, unsigned char byte) {
    EXPECT_EQ(KAVO_SUCCESS, offered.status);
    EXPECT_EQ(LEN, offered.len);
    EXPECT_EQ(isFind, offered.isFind);
    ASSERT_NE(nullptr, offered.address);
    EXPECT_EQ(std::string(LEN, static_cast<char>(byte)), std::string(offered.address, offered.address + LEN));
  }
};

TEST_F(Filter, FunctionsRefuse) {
  const std::string update = "Update failed, ret[-4]";
  const std::string orUpdate = "InsertOrUpdate failed, ret[-4]";
  const std::string length = "valuelen not equal table valuelen!";
  const std::string copy = "memcpy_s failed, ret = [" + std::to_string(ERANGE) + "]";
  unsigned char* stored = nullptr;
  unsigned len = 0;
  ASSERT_EQ(KAVO_SUCCESS, KavoLookup(FILTER, ADMITTED, &stored, &len));
  using KavoTest::Case;
  for (const unsigned table : {FILTER, MAPPED_FILTER}) {
    Check({
        Case{"lookup of an absent key",
             KAVO_INVALID,
             [&] { return KavoLookup(table, ABSENT, &valuePtr, &valueLen); },
             {{"KavoLookup", "LookUpWithValLen failed, ret[-4] != 0"}}},
        Case{"lookup for update of an absent key",
             KAVO_INVALID,
             [&] { return KavoLookupForUpdate(table, ABSENT, &valuePtr, &valueLen); },
             {{"KavoLookupForUpdate", "LookUpWithValLen failed, ret[-4] != 0"}}},
        Case{"update of an absent key",
             KAVO_INVALID,
             [&] { return KavoUpdate(table, ABSENT, value.data(), LEN); },
             {{"KavoUpdate", update}}},
        Case{"update of a counted key",
             KAVO_INVALID,
             [&] { return KavoUpdate(table, COUNTED, value.data(), LEN); },
             {{"UpdateValue", "rawPtr is nullptr!"}, {"KavoUpdate", update}}},
        Case{"update with another length",
             KAVO_INVALID,
             [&] { return KavoUpdate(table, ADMITTED, value.data(), LEN - 1); },
             {{"Update", length}, {"KavoUpdate", update}}},
        Case{"insert with another length",
             KAVO_INVALID,
             [&] { return KavoInsert(table, ABSENT, value.data(), LEN - 1, 1, 0); },
             {{"Insert", length}, {"KavoInsert", "Insert failed, ret[-4]"}}},
        Case{"insert of an admitted key",
             KAVO_INVALID,
             [&] { return KavoInsert(table, ADMITTED, nullptr, 0, 1, 0); },
             {{"KavoInsert", "Insert failed, ret[-4]"}}},
        Case{"insert of a counted key",
             KAVO_INVALID,
             [&] { return KavoInsert(table, COUNTED, value.data(), LEN, 1, 0); },
             {{"KavoInsert", "Insert failed, ret[-4]"}}},
        Case{"insert or update with another length",
             KAVO_INVALID,
             [&] { return KavoInsertOrUpdate(table, ADMITTED, value.data(), LEN + 1, 1); },
             {{"InsertOrUpdate", length}, {"KavoInsertOrUpdate", orUpdate}}},
    });
  }
  Check({
      Case{"insert or update with bytes that overlap the value",
           KAVO_NO_MEMORY,
           [&] { return KavoInsertOrUpdate(FILTER, ADMITTED, stored + 1, LEN, 1); },
           {{"InsertOrUpdate", copy}, {"KavoInsertOrUpdate", "InsertOrUpdate failed, ret[-3]"}}},
      Case{"frequency of an unused id",
           KAVO_INVALID,
           [] { return KavoSetFilterFreq(UNUSED, 1); },
           {{"KavoSetFilterFreq", "TableId[9] is not exit."}}},
      Case{"frequency of an unused id of the map",
           KAVO_INVALID,
           [] { return KavoSetFilterFreq(4'294'967'295U, 1); },
           {{"KavoSetFilterFreq", "TableId[-1] is not exit."}}},
      Case{"frequency of a basic table",
           KAVO_INVALID,
           [] { return KavoSetFilterFreq(BASIC, 1); },
           {{"KavoSetFilterFreq", "TableId[8] is not for filter table."}}},
  });
}

// 99 occurrences in calls of different weight, then the hundredth.
TEST_F(Filter, KeyGetsItsValueWithItsHundredthOccurrence) {
  for (const unsigned table : {FILTER, MAPPED_FILTER}) {
    unsigned occurrences = 0;
    for (unsigned n = 1; occurrences + n <= 99; ++n) {
      ExpectCountedOnly(Offer(ABSENT, n, table));
      occurrences += n;
    }
    ExpectCountedOnly(Offer(ABSENT, 99 - occurrences, table));
    const Offered admitted = Offer(ABSENT, 1, table);
    ExpectValue(admitted, 1, 0);  // found, and nobody has written it yet
    admitted.address[0] = 1;
    const Offered again = Offer(ABSENT, 1, table);
    EXPECT_EQ(admitted.address, again.address);
    EXPECT_EQ(1, again.address[0]);
  }
}

TEST_F(Filter, EnoughOccurrencesInTheFirstCallAdmitANewKey) {
  ExpectCountedOnly(Offer(10, 99));
  ExpectValue(Offer(11, 100), 0, 0);
  ExpectValue(Offer(11, 100), 1, 0);
}

TEST_F(Filter, CallThatCountsNothingAdmitsANewKeyOnly) {
  ExpectValue(Offer(ABSENT, 0), 0, 0);
  ExpectValue(Offer(ABSENT, 0), 1, 0);
  ExpectCountedOnly(Offer(COUNTED, 0));
}

TEST_F(Filter, FrequencyAppliesFromTheNextOccurrenceOn) {
  ASSERT_EQ(KAVO_SUCCESS, KavoSetFilterFreq(FILTER, 0));
  ExpectValue(Offer(20, 1), 0, 0);
  ASSERT_EQ(KAVO_SUCCESS, KavoSetFilterFreq(FILTER, 2));
  ExpectCountedOnly(Offer(21, 1));
  ExpectValue(Offer(COUNTED, 1), 1, 0);
  ASSERT_EQ(KAVO_SUCCESS, KavoSetFilterFreq(FILTER, 4'294'967'295U));
  ExpectCountedOnly(Offer(21, 4'294'967'293U));
  ExpectValue(Offer(20, 1), 1, 0);
  ExpectValue(Offer(21, 4'294'967'295U), 1, 0);
}

TEST_F(Filter, CountedKeyReadsAsSuccessWithoutAddress) {
  for (const auto lookup : {&KavoLookup, &KavoLookupForUpdate}) {
    unsigned char* address = value.data();
    unsigned len = 4711;
    EXPECT_EQ(KAVO_SUCCESS, lookup(FILTER, COUNTED, &address, &len));
    EXPECT_EQ(nullptr, address);
    EXPECT_EQ(4711U, len);
    EXPECT_EQ(KAVO_SUCCESS, lookup(FILTER, ADMITTED, &address, &len));
    EXPECT_NE(nullptr, address);
    EXPECT_EQ(LEN, len);
  }
}

TEST_F(Filter, InsertOrUpdateWritesAdmittedAndNewKeysOnly) {
  std::array<unsigned char, LEN> bytes;
  bytes.fill(7);
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(FILTER, COUNTED, bytes.data(), LEN, 98));
  ExpectCountedOnly(Offer(COUNTED, 98));  // 99 now: the call before counted nothing
  ExpectValue(Offer(COUNTED, 1), 1, 0);
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(FILTER, COUNTED, bytes.data(), LEN, 0));
  ExpectValue(Offer(COUNTED, 1), 1, 7);
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(FILTER, COUNTED, nullptr, 0, 0));
  ExpectValue(Offer(COUNTED, 1), 1, 7);
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(FILTER, ABSENT, bytes.data(), LEN, 0));
  ExpectValue(Offer(ABSENT, 1), 1, 7);
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(FILTER, 30, nullptr, 0, 99));
  ExpectCountedOnly(Offer(30, 0));
  ExpectValue(Offer(30, 1), 1, 0);
  bytes.fill(8);
  EXPECT_EQ(KAVO_SUCCESS, KavoUpdate(FILTER, 30, bytes.data(), LEN));
  ExpectValue(Offer(30, 1), 1, 8);
}

}  // namespace
