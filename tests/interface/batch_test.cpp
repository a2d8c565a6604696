// Calls on many keys: what they refuse, and that they do what single calls do, beside growth in both ways.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "interface/status_cases.h"
#include "kavo.h"
#include "support/log_capture.h"
#include "support/seed.h"

namespace {

constexpr unsigned TABLE = 7;
constexpr unsigned TWIN = 8;  // what single calls make of it
constexpr unsigned UNUSED = 9;

class BatchStatus : public KavoTest::StatusCases {
 protected:
  void SetUp() override { ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, 100, LEN, KAVO_TABLE_TYPE_BASIC)); }
  void TearDown() override { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE)); }

  std::array<long, 5> keys{1, 5, 3, 2, 9};
  std::array<unsigned char*, 5> addresses{};
  std::array<unsigned, 5> finds{};
  std::array<unsigned char, 5 * LEN> rows{};
  unsigned long long number = 0;
};

TEST_F(BatchStatus, AnyBadArgumentIsRefusedBeforeAnythingIsDone) {
  const auto lookup = [this](unsigned id) {
    return [this, id] { return KavoBatchLookup(id, keys.data(), 5, addresses.data(), &number); };
  };
  const auto gather = [this](unsigned id, unsigned len) {
    return [this, id, len] { return KavoBatchGather(id, keys.data(), 5, rows.data(), len, nullptr); };
  };
  const auto offer = [this](unsigned id) {
    return
        [this, id] { return KavoBatchLookupOrInsert(id, keys.data(), 5, addresses.data(), finds.data(), 0, &number); };
  };
  const auto write = [this](unsigned id, unsigned len) {
    return [this, id, len] { return KavoBatchInsertOrUpdate(id, keys.data(), 5, rows.data(), len, 0, &number); };
  };
  const std::string noTable = "tableId[9] is nullptr";
  const std::string length = "valuelen not equal table valuelen!";
  const auto nulls = [](std::string name, std::string arrays) -> std::vector<KavoTest::Expected> {
    return {{name, name + " failed, " + arrays + " is null"}};
  };
  const auto lookupNulls = nulls("KavoBatchLookup", "keys, valuePtrs or found");
  const auto gatherNulls = nulls("KavoBatchGather", "keys or rows");
  const auto offerNulls = nulls("KavoBatchLookupOrInsert", "keys, valuePtrs, isFind or done");
  const auto writeNulls = nulls("KavoBatchInsertOrUpdate", "keys, rows or done");
  Check({
      {"no keys", KAVO_INVALID, [&] { return KavoBatchLookup(TABLE, nullptr, 0, addresses.data(), &number); },
       lookupNulls},
      {"no addresses", KAVO_INVALID, [&] { return KavoBatchLookup(TABLE, keys.data(), 0, nullptr, &number); },
       lookupNulls},
      {"no found", KAVO_INVALID, [&] { return KavoBatchLookup(TABLE, keys.data(), 0, addresses.data(), nullptr); },
       lookupNulls},
      {"no keys", KAVO_INVALID, [&] { return KavoBatchGather(TABLE, nullptr, 0, rows.data(), LEN, nullptr); },
       gatherNulls},
      {"no rows", KAVO_INVALID, [&] { return KavoBatchGather(TABLE, keys.data(), 0, nullptr, LEN, nullptr); },
       gatherNulls},
      {"no keys", KAVO_INVALID,
       [&] { return KavoBatchLookupOrInsert(TABLE, nullptr, 0, addresses.data(), finds.data(), 0, &number); },
       offerNulls},
      {"no addresses", KAVO_INVALID,
       [&] { return KavoBatchLookupOrInsert(TABLE, keys.data(), 0, nullptr, finds.data(), 0, &number); }, offerNulls},
      {"no isFind", KAVO_INVALID,
       [&] { return KavoBatchLookupOrInsert(TABLE, keys.data(), 0, addresses.data(), nullptr, 0, &number); },
       offerNulls},
      {"no done", KAVO_INVALID,
       [&] { return KavoBatchLookupOrInsert(TABLE, keys.data(), 0, addresses.data(), finds.data(), 0, nullptr); },
       offerNulls},
      {"no keys", KAVO_INVALID,
       [&] { return KavoBatchInsertOrUpdate(TABLE, nullptr, 0, rows.data(), LEN, 0, &number); }, writeNulls},
      {"no rows", KAVO_INVALID,
       [&] { return KavoBatchInsertOrUpdate(TABLE, keys.data(), 0, nullptr, LEN, 0, &number); }, writeNulls},
      {"no done", KAVO_INVALID,
       [&] { return KavoBatchInsertOrUpdate(TABLE, keys.data(), 0, rows.data(), LEN, 0, nullptr); }, writeNulls},
      {"unused id", KAVO_INVALID, lookup(UNUSED), {{"KavoBatchLookup", noTable}}},
      {"unused id", KAVO_INVALID, gather(UNUSED, LEN), {{"KavoBatchGather", noTable}}},
      {"unused id", KAVO_INVALID, offer(UNUSED), {{"KavoBatchLookupOrInsert", noTable}}},
      {"unused id", KAVO_INVALID, write(UNUSED, LEN), {{"KavoBatchInsertOrUpdate", noTable}}},
      {"length",
       KAVO_INVALID,
       gather(TABLE, LEN - 1),
       {{"Gather", length}, {"KavoBatchGather", "KavoBatchGather failed, ret[-4]"}}},
      {"length",
       KAVO_INVALID,
       write(TABLE, LEN + 1),
       {{"InsertOrUpdate", length}, {"KavoBatchInsertOrUpdate", "KavoBatchInsertOrUpdate failed, ret[-4], done[0]"}}},
  });
  // The last key, and then the first of two.
  keys[4] = -9;
  const auto bad = [](std::string name, int index) -> std::vector<KavoTest::Expected> {
    return {{name, name + " failed, keys[" + std::to_string(index) + "] < 0"}};
  };
  for (const int index : {4, 2}) {
    keys[static_cast<std::size_t>(index)] = -1;
    Check({
        {"negative key", KAVO_INVALID, lookup(TABLE), bad("KavoBatchLookup", index)},
        {"negative key", KAVO_INVALID, gather(TABLE, LEN), bad("KavoBatchGather", index)},
        {"negative key", KAVO_INVALID, offer(TABLE), bad("KavoBatchLookupOrInsert", index)},
        {"negative key", KAVO_INVALID, write(TABLE, LEN), bad("KavoBatchInsertOrUpdate", index)},
    });
  }
  EXPECT_EQ(0U, number);
  unsigned long long size = 9;
  EXPECT_EQ(KAVO_SUCCESS, KavoGetHtSizeAndVl(TABLE, &size, &valueLen, false));
  EXPECT_EQ(0U, size) << "a refused batch has inserted keys";
}

// Keys whose home lies within a run of others find no cell within reach: a single lookup of an absent one goes through
// their bucket's overflow map, and has lines in two layers.
TEST_F(BatchStatus, AbsentKeysWriteNoLineNotEvenFromAnOverflowMap) {
  ASSERT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE));
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, 2000, LEN, KAVO_TABLE_TYPE_BASIC));
  std::vector<long> many(420);
  for (std::size_t i = 0; i < many.size(); ++i) {
    many[i] = i < 400 ? static_cast<long>(i) : static_cast<long>(i) << 32 | 5;
  }
  std::vector<unsigned char*> at(many.size());
  std::vector<unsigned> isNew(many.size());
  ASSERT_EQ(KAVO_SUCCESS, KavoBatchLookupOrInsert(TABLE, many.data(), 410, at.data(), isNew.data(), 0, &number));
  KavoTest::LogCapture capture(KavoSetLogSink);
  EXPECT_EQ(KAVO_SUCCESS, KavoBatchLookup(TABLE, many.data(), many.size(), at.data(), &number));
  EXPECT_EQ(410U, number);
  EXPECT_EQ(nullptr, at[410]);
  EXPECT_EQ(KAVO_SUCCESS, KavoBatchGather(TABLE, &many[410], 5, rows.data(), LEN, nullptr));
  EXPECT_EQ(0U, capture.Lines().size());
  EXPECT_EQ(KAVO_INVALID, KavoLookup(TABLE, many[419], &valuePtr, &valueLen));
  EXPECT_EQ(2U, capture.Lines().size()) << "the bucket was meant to have a map";
}

class BatchesAndSingleCalls : public testing::TestWithParam<std::tuple<unsigned, unsigned>> {};
INSTANTIATE_TEST_SUITE_P(, BatchesAndSingleCalls,
                         testing::Combine(testing::Values(KAVO_TABLE_TYPE_BASIC, KAVO_TABLE_TYPE_FILTER),
                                          testing::Values(KAVO_REHASH_GRADUAL, KAVO_REHASH_WHOLE_TABLE)),
                         [](const auto& param) {
                           return std::string(std::get<0>(param.param) == KAVO_TABLE_TYPE_BASIC ? "Basic" : "Filter") +
                                  (std::get<1>(param.param) == KAVO_REHASH_GRADUAL ? "Gradual" : "WholeTable");
                         });

// Batches go into one table, the same keys one by one into its twin. Both start with 8 entries and end with thousands;
// keys repeat within a batch and between batches; of a filter table's keys some stay counted.
TEST_P(BatchesAndSingleCalls, LeaveTheSameTableAndAnswerTheSame) {
  constexpr unsigned LEN = 12;
  const auto [type, mode] = GetParam();
  for (const unsigned id : {TABLE, TWIN}) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 8, LEN, type));
    ASSERT_EQ(KAVO_SUCCESS, KavoSetRehashMode(id, mode));
  }
  std::mt19937_64 random(KavoTest::TestSeed());
  unsigned long long inserted = 0;
  for (int round = 0; round < 600; ++round) {
    SCOPED_TRACE(round);
    const std::size_t num = random() % 100;
    std::vector<long> keys(num + 1);
    for (long& key : keys) {
      key = static_cast<long>((random() % 10000) * 0x9E3779B97F4A7C15ULL >> 20);
    }
    const unsigned count = std::array<unsigned, 4>{0, 1, 40, 120}[random() % 4];
    std::vector<unsigned char> rows(keys.size() * LEN);
    std::generate(rows.begin(), rows.end(), [&] { return static_cast<unsigned char>(random()); });
    std::vector<unsigned char*> values(keys.size());
    std::vector<unsigned> isFind(keys.size());
    unsigned long long number = 99;
    unsigned char* value = nullptr;
    unsigned len = 0;
    unsigned found = 0;
    const bool writes = random() % 2 == 0;
    if (writes) {
      ASSERT_EQ(KAVO_SUCCESS, KavoBatchInsertOrUpdate(TABLE, keys.data(), num, rows.data(), LEN, count, &number));
    } else {
      ASSERT_EQ(KAVO_SUCCESS,
                KavoBatchLookupOrInsert(TABLE, keys.data(), num, values.data(), isFind.data(), count, &number));
    }
    ASSERT_EQ(num, number);
    for (std::size_t i = 0; i < num; ++i) {
      if (writes) {
        ASSERT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(TWIN, keys[i], &rows[i * LEN], LEN, count));
      } else {
        ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(TWIN, keys[i], &value, &len, &found, count));
        ASSERT_EQ(found, isFind[i]);
        ASSERT_EQ(value == nullptr, values[i] == nullptr);
        inserted += found == 0 ? 1 : 0;
      }
    }
    // Some of the next keys are absent.
    for (long& key : keys) {
      key = static_cast<long>((random() % 12000) * 0x9E3779B97F4A7C15ULL >> 20);
    }
    const std::vector<unsigned char> absent(LEN, 0xEE);
    const unsigned char* const defaultRow = round % 2 == 0 ? absent.data() : nullptr;
    ASSERT_EQ(KAVO_SUCCESS, KavoBatchLookup(TABLE, keys.data(), num, values.data(), &number));
    ASSERT_EQ(KAVO_SUCCESS, KavoBatchGather(TABLE, keys.data(), num, rows.data(), LEN, defaultRow));
    unsigned long long present = 0;
    KavoTest::LogCapture misses(KavoSetLogSink);
    for (std::size_t i = 0; i < num; ++i) {
      value = nullptr;
      static_cast<void>(KavoLookup(TWIN, keys[i], &value, &len));
      ASSERT_EQ(value == nullptr, values[i] == nullptr);
      present += value == nullptr ? 0 : 1;
      const std::vector<unsigned char> row(&rows[i * LEN], &rows[i * LEN] + LEN);
      ASSERT_EQ(value != nullptr        ? std::vector<unsigned char>(value, value + LEN)
                : defaultRow != nullptr ? absent
                                        : std::vector<unsigned char>(LEN),
                row);
    }
    ASSERT_EQ(present, number);
  }
  EXPECT_GE(inserted, 100U);
  // What an export shows: counts, and who is due.
  std::vector<KavoHtBatchElement> exported[2];
  for (const unsigned id : {TABLE, TWIN}) {
    auto& elements = exported[id - TABLE];
    elements.resize(20000);
    KavoHtBatchInfo batch{elements.data(), 20000, KAVO_EXPORT_UNMARKED, 0};
    unsigned num = 0;
    void* iter = nullptr;
    ASSERT_EQ(KAVO_SUCCESS, KavoBatchGetNext(id, &batch, &num, &iter));
    ASSERT_EQ(nullptr, iter);
    elements.resize(num);
    std::sort(elements.begin(), elements.end(), [](const auto& a, const auto& b) { return a.key < b.key; });
    EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
  }
  EXPECT_TRUE(std::equal(exported[0].begin(), exported[0].end(), exported[1].begin(), exported[1].end(),
                         [](const auto& a, const auto& b) { return a.key == b.key && a.count == b.count; }));
}

}  // namespace
