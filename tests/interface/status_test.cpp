// Every way in which an exported function refuses a call: its status, and the lines that it writes, each with the name
// of the function that wrote it. Hosts match on both.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>

#include "interface/status_cases.h"
#include "kavo.h"
#include "support/log_capture.h"

namespace {

constexpr unsigned TABLE = 7;
constexpr unsigned MAPPED_TABLE = 70'000;
constexpr unsigned UNUSED = 8;
constexpr long PRESENT = 3;
constexpr long ABSENT = 4;

class Status : public KavoTest::StatusCases {
 protected:
  void SetUp() override {
    for (const unsigned table : {TABLE, MAPPED_TABLE}) {
      ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(table, 100, LEN, KAVO_TABLE_TYPE_BASIC));
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(table, PRESENT, value.data(), LEN, 0, 1));
    }
  }
  void TearDown() override {
    EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE));
    EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(MAPPED_TABLE));
  }
};

TEST_F(Status, CreationAndDestructionRefuse) {
  const std::string range =
      "KavoInitHashTable failed, valueLen should not be 0 or greater than[4294967291] or tabletype fault[";
  Check({
      {"empty type, even for an id in use",
       KAVO_INVALID,
       [] { return KavoInitHashTable(TABLE, 8, 1, 2); },
       {{"KavoInitHashTable", range + "2]"}}},
      {"length 0",
       KAVO_INVALID,
       [] { return KavoInitHashTable(UNUSED, 8, 0, 0); },
       {{"KavoInitHashTable", range + "0]"}}},
      {"length too large",
       KAVO_INVALID,
       [] { return KavoInitHashTable(UNUSED, 8, 4294967292U, 1); },
       {{"KavoInitHashTable", range + "1]"}}},
      {"id in use",
       KAVO_EXISTS,
       [] { return KavoInitHashTable(TABLE, 8, 1, 0); },
       {{"KavoInitHashTable", "TableId[7] is existed."}}},
      {"id in use, of the map, unknown type",
       KAVO_EXISTS,
       [] { return KavoInitHashTable(MAPPED_TABLE, 8, 1, 3); },
       {{"KavoInitHashTable", "TableId[70000] is existed."}}},
      {"unknown type",
       KAVO_INVALID,
       [] { return KavoInitHashTable(UNUSED, 8, 1, 3); },
       {{"KavoInitHashTable", "TableType err"}}},
      {"destruction of an unused id",
       KAVO_INVALID,
       [] { return KavoUninitHashTable(UNUSED); },
       {{"KavoUninitHashTable", "TableId[8] is not exit."}}},
      {"destruction of an unused id of the map",
       KAVO_INVALID,
       [] { return KavoUninitHashTable(UINT_MAX); },
       {{"KavoUninitHashTable", "TableId[-1] is not exit."}}},
  });
}

TEST_F(Status, LookupsRefuse) {
  const struct {
    std::string name;
    int (*call)(unsigned, long, unsigned char**, unsigned*);
    std::string prefix;
  } functions[] = {{"KavoLookup", &KavoLookup, "KavoLookup failed"},
                   {"KavoLookupForUpdate", &KavoLookupForUpdate, "KavoLookupForUpdate Failed"}};
  for (const auto& f : functions) {
    const std::string null = f.prefix + ", valuePtr == nullptr || valueLen == nullptr";
    Check({
        {f.name + ", null address",
         KAVO_INVALID,
         [&] { return f.call(TABLE, PRESENT, nullptr, &valueLen); },
         {{f.name, null}}},
        {f.name + ", null length, before the key",
         KAVO_INVALID,
         [&] { return f.call(TABLE, -1, &valuePtr, nullptr); },
         {{f.name, null}}},
        {f.name + ", negative key, before the table",
         KAVO_INVALID,
         [&] { return f.call(UNUSED, LONG_MIN, &valuePtr, &valueLen); },
         {{f.name, f.prefix + ", key < 0"}}},
        {f.name + ", unused id",
         KAVO_INVALID,
         [&] { return f.call(UNUSED, PRESENT, &valuePtr, &valueLen); },
         {{f.name, "tableId[8] is nullptr"}}},
        {f.name + ", unused id of the map",
         KAVO_INVALID,
         [&] { return f.call(70'001, PRESENT, &valuePtr, &valueLen); },
         {{f.name, "tableId[70001] is nullptr"}}},
        {f.name + ", absent key",
         KAVO_INVALID,
         [&] { return f.call(MAPPED_TABLE, ABSENT, &valuePtr, &valueLen); },
         {{f.name, "LookUpWithValLen failed, ret[-4] != 0"}}},
    });
  }
}

TEST_F(Status, SetRehashModeRefuses) {
  Check({
      {"mode 0",
       KAVO_INVALID,
       [] { return KavoSetRehashMode(TABLE, 0); },
       {{"KavoSetRehashMode", "KavoSetRehashMode failed, mode[0]"}}},
      {"mode 3",
       KAVO_INVALID,
       [] { return KavoSetRehashMode(UNUSED, 3); },
       {{"KavoSetRehashMode", "KavoSetRehashMode failed, mode[3]"}}},
      {"unused id",
       KAVO_INVALID,
       [] { return KavoSetRehashMode(UNUSED, KAVO_REHASH_GRADUAL); },
       {{"KavoSetRehashMode", "tableId[8] is nullptr"}}},
      {"gradual", KAVO_SUCCESS, [] { return KavoSetRehashMode(MAPPED_TABLE, KAVO_REHASH_GRADUAL); }, {}},
  });
}

TEST_F(Status, UpdateRefuses) {
  Check({
      {"null value",
       KAVO_INVALID,
       [] { return KavoUpdate(TABLE, -1, nullptr, LEN); },
       {{"KavoUpdate", "KavoUpdate failed, valuePtr == nullptr"}}},
      {"negative key",
       KAVO_INVALID,
       [&] { return KavoUpdate(UNUSED, -1, value.data(), LEN); },
       {{"KavoUpdate", "KavoUpdate failed, key < 0"}}},
      {"unused id",
       KAVO_INVALID,
       [&] { return KavoUpdate(UNUSED, PRESENT, value.data(), LEN); },
       {{"KavoUpdate", "tableId[8] is nullptr"}}},
      {"length",
       KAVO_INVALID,
       [&] { return KavoUpdate(TABLE, PRESENT, value.data(), LEN - 1); },
       {{"Update", "valuelen not equal table valuelen!"}, {"KavoUpdate", "Update failed, ret[-4]"}}},
      {"absent key",
       KAVO_INVALID,
       [&] { return KavoUpdate(TABLE, ABSENT, value.data(), LEN); },
       {{"KavoUpdate", "Update failed, ret[-4]"}}},
  });
}

TEST_F(Status, InsertsRefuse) {
  Check({
      {"Insert, negative key",
       KAVO_INVALID,
       [&] { return KavoInsert(UNUSED, -1, nullptr, LEN, 0, 0); },
       {{"KavoInsert", "KavoInsert failed, key < 0"}}},
      {"Insert, unused id",
       KAVO_INVALID,
       [&] { return KavoInsert(UNUSED, ABSENT, nullptr, LEN, 0, 0); },
       {{"KavoInsert", "tableId[8] is nullptr"}}},
      {"Insert, null value",
       KAVO_INVALID,
       [&] { return KavoInsert(TABLE, ABSENT, nullptr, 1, 0, 0); },
       {{"KavoInsert", "KavoInsert failed, valuePtr == nullptr"}}},
      {"Insert, length",
       KAVO_INVALID,
       [&] { return KavoInsert(TABLE, ABSENT, value.data(), LEN + 1, 0, 0); },
       {{"Insert", "valuelen not equal table valuelen!"}, {"KavoInsert", "Insert failed, ret[-4]"}}},
      {"Insert, present key",
       KAVO_INVALID,
       [&] { return KavoInsert(TABLE, PRESENT, value.data(), LEN, 0, 0); },
       {{"KavoInsert", "Insert failed, ret[-4]"}}},
      {"InsertOrUpdate, negative key",
       KAVO_INVALID,
       [&] { return KavoInsertOrUpdate(UNUSED, -1, nullptr, LEN, 0); },
       {{"KavoInsertOrUpdate", "KavoInsertOrUpdate failed, key < 0"}}},
      {"InsertOrUpdate, unused id",
       KAVO_INVALID,
       [&] { return KavoInsertOrUpdate(UNUSED, ABSENT, nullptr, LEN, 0); },
       {{"KavoInsertOrUpdate", "tableId[8] is nullptr"}}},
      {"InsertOrUpdate, null value",
       KAVO_INVALID,
       [&] { return KavoInsertOrUpdate(TABLE, ABSENT, nullptr, 1, 0); },
       {{"KavoInsertOrUpdate", "KavoInsertOrUpdate failed, valuePtr == nullptr"}}},
      {"InsertOrUpdate, length",
       KAVO_INVALID,
       [&] { return KavoInsertOrUpdate(MAPPED_TABLE, PRESENT, value.data(), 0, 0); },
       {{"InsertOrUpdate", "valuelen not equal table valuelen!"},
        {"KavoInsertOrUpdate", "InsertOrUpdate failed, ret[-4]"}}},
  });
  const std::string null =
      "KavoLookupOrInsert failed, valuePtr == nullptr || valueLen == nullptr || isFind == nullptr ";
  Check({
      {"LookupOrInsert, null address",
       KAVO_INVALID,
       [&] { return KavoLookupOrInsert(UNUSED, -1, nullptr, &valueLen, &isFind, 0); },
       {{"KavoLookupOrInsert", null}}},
      {"LookupOrInsert, null length",
       KAVO_INVALID,
       [&] { return KavoLookupOrInsert(UNUSED, -1, &valuePtr, nullptr, &isFind, 0); },
       {{"KavoLookupOrInsert", null}}},
      {"LookupOrInsert, null flag",
       KAVO_INVALID,
       [&] { return KavoLookupOrInsert(UNUSED, -1, &valuePtr, &valueLen, nullptr, 0); },
       {{"KavoLookupOrInsert", null}}},
      {"LookupOrInsert, negative key",
       KAVO_INVALID,
       [&] { return KavoLookupOrInsert(UNUSED, -1, &valuePtr, &valueLen, &isFind, 0); },
       {{"KavoLookupOrInsert", "KavoLookupOrInsert failed, key < 0"}}},
      {"LookupOrInsert, unused id",
       KAVO_INVALID,
       [&] { return KavoLookupOrInsert(UNUSED, ABSENT, &valuePtr, &valueLen, &isFind, 0); },
       {{"KavoLookupOrInsert", "tableId[8] is nullptr"}}},
  });
}

// Bytes that overlap their destination are not copied: the entry stays, zeroed, and the caller is told.
TEST_F(Status, OverlappingBytesAreRefusedAndZeroTheValue) {
  unsigned char* stored = nullptr;
  unsigned length = 0;
  const auto refill = [&] {
    ASSERT_EQ(KAVO_SUCCESS, KavoLookup(TABLE, PRESENT, &stored, &length));
    std::fill(stored, stored + LEN, static_cast<unsigned char>(9));
  };
  const auto expectZero = [&] { EXPECT_EQ(std::string(LEN, '\0'), std::string(stored, stored + LEN)); };
  const std::string range = std::to_string(ERANGE);
  refill();
  Check({{"Update",
          KAVO_NO_MEMORY,
          [&] { return KavoUpdate(TABLE, PRESENT, stored + 1, LEN); },
          {{"UpdateValue", "memcpy_s failed, ret[" + range + "]"}, {"KavoUpdate", "Update failed, ret[-3]"}}}});
  expectZero();
  refill();
  Check({{"InsertOrUpdate",
          KAVO_NO_MEMORY,
          [&] { return KavoInsertOrUpdate(TABLE, PRESENT, stored + 1, LEN, 0); },
          {{"InsertOrUpdate", "memcpy_s failed, ret[" + range + "]"},
           {"KavoInsertOrUpdate", "InsertOrUpdate failed, ret[-3]"}}}});
  expectZero();
}

TEST_F(Status, SinkWithoutWriterIsRefusedAndChangesNothing) {
  Check({{"SetLogSink",
          KAVO_INVALID,
          [] {
            const KavoLogSink sink{};
            return KavoSetLogSink(&sink);
          },
          {{"KavoSetLogSink", "KavoSetLogSink failed, write == nullptr"}}}});
}

TEST_F(Status, SuccessWritesNoLine) {
  KavoTest::LogCapture capture(KavoSetLogSink);
  unsigned char* address = nullptr;
  unsigned length = 0;
  unsigned found = 0;
  EXPECT_EQ(KAVO_SUCCESS, KavoInitHashTable(UNUSED, 8, LEN, KAVO_TABLE_TYPE_BASIC));
  EXPECT_EQ(KAVO_SUCCESS, KavoInsert(UNUSED, 1, value.data(), LEN, 0, 0));
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(UNUSED, 2, value.data(), LEN, 0));
  EXPECT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(UNUSED, 3, &address, &length, &found, 0));
  EXPECT_EQ(KAVO_SUCCESS, KavoLookup(UNUSED, 1, &address, &length));
  EXPECT_EQ(KAVO_SUCCESS, KavoLookupForUpdate(UNUSED, 1, &address, &length));
  EXPECT_EQ(KAVO_SUCCESS, KavoUpdate(UNUSED, 1, value.data(), LEN));
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(UNUSED));
  EXPECT_TRUE(capture.Lines().empty());
}

}  // namespace
