// Export as a host sees it: batches, cursors, modes, and every refusal.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kavo.h"
#include "support/log_capture.h"

namespace {

constexpr unsigned TABLE = 7;
constexpr unsigned UNUSED = 8;
constexpr unsigned LEN = 8;
constexpr unsigned UNTOUCHED = 4711;
constexpr unsigned STATE_CHANGED = 2;  // as an insert names it
constexpr unsigned STATE_MARKED = 1;

using Keys = std::vector<long>;

std::vector<unsigned char> ValueOf(long key) {
  std::vector<unsigned char> bytes(LEN);
  for (unsigned i = 0; i < LEN; ++i) {
    bytes[i] = static_cast<unsigned char>(static_cast<unsigned long>(key) * 7 + i);
  }
  return bytes;
}

struct Iteration {
  explicit Iteration(unsigned eleNum, unsigned mode = KAVO_EXPORT_ALL, unsigned id = TABLE)
      : table(id),
        elements(eleNum, KavoHtBatchElement{-7, nullptr, UNTOUCHED}),
        info{elements.data(), eleNum, mode, UNTOUCHED} {}
  int Next() { return KavoBatchGetNext(table, &info, &realNum, &iter); }
  Keys BatchKeys() const {
    Keys keys;
    for (unsigned i = 0; i < realNum; ++i) {
      keys.push_back(elements[i].key);
    }
    return keys;
  }
  const unsigned table;
  std::vector<KavoHtBatchElement> elements;
  KavoHtBatchInfo info;
  unsigned realNum = UNTOUCHED;
  void* iter = nullptr;
};

// All batches of an iteration. Stops, with a failed test, when it does not end.
std::vector<Keys> Batches(unsigned eleNum, unsigned mode = KAVO_EXPORT_ALL) {
  Iteration iteration(eleNum, mode);
  std::vector<Keys> batches;
  do {
    EXPECT_EQ(KAVO_SUCCESS, iteration.Next());
    EXPECT_TRUE(iteration.iter == nullptr ? iteration.realNum < eleNum : iteration.realNum == eleNum);
    batches.push_back(iteration.BatchKeys());
    if (batches.size() > 10'000) {
      ADD_FAILURE() << "no end";
      break;
    }
  } while (iteration.iter != nullptr);
  return batches;
}

std::vector<std::size_t> SizesOf(const std::vector<Keys>& batches) {
  std::vector<std::size_t> sizes;
  for (const Keys& batch : batches) {
    sizes.push_back(batch.size());
  }
  return sizes;
}

std::multiset<long> AllOf(const std::vector<Keys>& batches) {
  std::multiset<long> keys;
  for (const Keys& batch : batches) {
    keys.insert(batch.begin(), batch.end());
  }
  return keys;
}

class Export : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(TABLE, 8, LEN, KAVO_TABLE_TYPE_BASIC)); }
  void TearDown() override { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(TABLE)); }
  void Fill(long count, unsigned state = STATE_CHANGED) {
    for (long key = 0; key < count; ++key) {
      auto value = ValueOf(key);
      ASSERT_EQ(KAVO_SUCCESS, KavoInsert(TABLE, key, value.data(), LEN, 0, state));
    }
  }
};

TEST_F(Export, OfAnEmptyTableEndsInItsFirstCall) {
  EXPECT_EQ((std::vector<Keys>{{}}), Batches(4));
  unsigned long long size = UNTOUCHED;
  unsigned valueLen = 0;
  EXPECT_EQ(KAVO_SUCCESS, KavoGetHtSizeAndVl(TABLE, &size, &valueLen, false));
  EXPECT_EQ(0U, size);
  EXPECT_EQ(LEN, valueLen);
}

TEST_F(Export, LooksAtTheLastEntryOfAFullBatchAgain) {
  Fill(10);
  const std::vector<Keys> four = Batches(4);
  EXPECT_EQ((std::vector<std::size_t>{4, 4, 4, 1}), SizesOf(four));
  for (std::size_t i = 1; i < four.size(); ++i) {
    EXPECT_EQ(four[i - 1].back(), four[i].front());
  }
  const std::vector<Keys> ten = Batches(10);
  EXPECT_EQ((std::vector<std::size_t>{10, 1}), SizesOf(ten));
  EXPECT_EQ(ten[0].back(), ten[1].front());
  EXPECT_EQ((std::vector<std::size_t>{10}), SizesOf(Batches(11)));
  // Marked by its first report, it does not meet the mode any more.
  EXPECT_EQ((std::vector<std::size_t>{5, 5, 0}), SizesOf(Batches(5, KAVO_EXPORT_UNMARKED_MARK)));
}

TEST_F(Export, InBatchesOfOneEndsAndRepeatsNothing) {
  Fill(20, STATE_MARKED);
  for (const unsigned mode : {unsigned{KAVO_EXPORT_ALL}, unsigned{KAVO_EXPORT_MARKED}}) {
    const std::multiset<long> keys = AllOf(Batches(1, mode));
    EXPECT_EQ(20U, keys.size());
    EXPECT_EQ(20U, std::set<long>(keys.begin(), keys.end()).size());
  }
}

TEST_F(Export, OfATableThatHasGrownGivesEachKeyWithItsValue) {
  constexpr long KEYS = 3000;
  Fill(KEYS);
  std::map<long, unsigned char*> seen;
  Iteration iteration(128);
  do {
    ASSERT_EQ(KAVO_SUCCESS, iteration.Next());
    EXPECT_EQ(unsigned{KAVO_TABLE_TYPE_BASIC}, iteration.info.tableType);
    for (unsigned i = 0; i < iteration.realNum; ++i) {
      const KavoHtBatchElement& element = iteration.elements[i];
      const bool isNew = seen.emplace(element.key, element.value).second;
      EXPECT_TRUE(isNew || i == 0) << element.key;
      EXPECT_EQ(UNTOUCHED, element.count);
      EXPECT_EQ(ValueOf(element.key), std::vector<unsigned char>(element.value, element.value + LEN));
    }
  } while (iteration.iter != nullptr);
  EXPECT_EQ(static_cast<std::size_t>(KEYS), seen.size());
  unsigned long long size = 0;
  unsigned valueLen = 0;
  EXPECT_EQ(KAVO_SUCCESS, KavoGetHtSizeAndVl(TABLE, &size, &valueLen, true));
  EXPECT_EQ(static_cast<unsigned long long>(KEYS), size);
}

TEST_F(Export, AfterAMarkingOneGivesWhatWasChangedSince) {
  Fill(10);
  EXPECT_EQ(10U, AllOf(Batches(3, KAVO_EXPORT_UNMARKED_MARK)).size());
  EXPECT_TRUE(AllOf(Batches(3, KAVO_EXPORT_UNMARKED)).empty());
  EXPECT_TRUE(AllOf(Batches(3, KAVO_EXPORT_UNMARKED_MARK)).empty());
  EXPECT_EQ(10U, AllOf(Batches(20, KAVO_EXPORT_MARKED)).size());
  auto value = ValueOf(1);
  unsigned char* address = nullptr;
  unsigned len = 0;
  EXPECT_EQ(KAVO_SUCCESS, KavoUpdate(TABLE, 4, value.data(), LEN));
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(TABLE, 5, value.data(), LEN, 0));
  EXPECT_EQ(KAVO_SUCCESS, KavoLookupForUpdate(TABLE, 6, &address, &len));
  EXPECT_EQ(KAVO_SUCCESS, KavoLookup(TABLE, 7, &address, &len));
  EXPECT_EQ((std::multiset<long>{4, 5, 6}), AllOf(Batches(9, KAVO_EXPORT_UNMARKED)));
  EXPECT_EQ((std::multiset<long>{4, 5, 6}), AllOf(Batches(9, KAVO_EXPORT_UNMARKED_MARK)));
  EXPECT_TRUE(AllOf(Batches(9, KAVO_EXPORT_UNMARKED)).empty());
}

TEST_F(Export, CursorsOfOneTableDoNotAffectEachOther) {
  Fill(9);
  Iteration a(4);
  Iteration b(3);
  Iteration abandoned(2);
  ASSERT_EQ(KAVO_SUCCESS, abandoned.Next());
  std::multiset<long> keysOfA;
  std::multiset<long> keysOfB;
  for (int step = 0; step < 20 && (step == 0 || a.iter != nullptr || b.iter != nullptr); ++step) {
    for (auto [iteration, keys] : {std::pair{&a, &keysOfA}, std::pair{&b, &keysOfB}}) {
      if (step == 0 || iteration->iter != nullptr) {
        ASSERT_EQ(KAVO_SUCCESS, iteration->Next());
        const Keys batch = iteration->BatchKeys();
        keys->insert(batch.begin(), batch.end());
      }
    }
    EXPECT_TRUE(a.iter == nullptr || a.iter != b.iter);
  }
  EXPECT_EQ(AllOf(Batches(4)), keysOfA);
  EXPECT_EQ(AllOf(Batches(3)), keysOfB);
}

TEST_F(Export, OfAFilterTableGivesCountsAndNullForKeysWithoutAValue) {
  constexpr unsigned FILTER = 9;
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(FILTER, 8, LEN, KAVO_TABLE_TYPE_FILTER));
  unsigned char* address = nullptr;
  unsigned len = 0;
  unsigned found = 0;
  // Every third key is admitted at once.
  const auto occurrencesOf = [](long key) { return static_cast<unsigned>(key % 3 == 0 ? 1000 + key : 1 + key % 50); };
  for (long key = 0; key < 300; ++key) {
    ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(FILTER, key, &address, &len, &found, occurrencesOf(key)));
  }
  std::set<long> seen;
  Iteration iteration(32, KAVO_EXPORT_ALL, FILTER);
  do {
    ASSERT_EQ(KAVO_SUCCESS, iteration.Next());
    EXPECT_EQ(unsigned{KAVO_TABLE_TYPE_FILTER}, iteration.info.tableType);
    for (unsigned i = 0; i < iteration.realNum; ++i) {
      const auto& [key, value, count] = iteration.elements[i];
      EXPECT_TRUE(seen.insert(key).second || i == 0) << key;
      EXPECT_EQ(occurrencesOf(key), count);
      EXPECT_EQ(key % 3 == 0, value != nullptr);
    }
  } while (iteration.iter != nullptr);
  EXPECT_EQ(300U, seen.size());
  unsigned long long size = 0;
  EXPECT_EQ(KAVO_SUCCESS, KavoGetHtSizeAndVl(FILTER, &size, &len, false));
  EXPECT_EQ(300U, size);
  EXPECT_EQ(KAVO_SUCCESS, KavoGetHtSizeAndVl(FILTER, &size, &len, true));
  EXPECT_EQ(100U, size);
  // No key without a value is ever marked away, and in batches of one the walk gets past them all the same.
  Iteration ones(1, KAVO_EXPORT_MARKED, FILTER);
  std::multiset<long> counted;
  for (int calls = 0; calls < 1000 && (calls == 0 || ones.iter != nullptr); ++calls) {
    ASSERT_EQ(KAVO_SUCCESS, ones.Next());
    if (ones.realNum == 1) {
      counted.insert(ones.elements[0].key);
    }
  }
  EXPECT_EQ(nullptr, ones.iter);
  EXPECT_EQ(200U, counted.size());
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(FILTER));
}

// One call, its status and its lines; nothing but what a case names is written.
TEST_F(Export, Refusals) {
  Fill(10);
  Iteration it(4);
  unsigned long long size = UNTOUCHED;
  unsigned valueLen = UNTOUCHED;
  const auto lines = [](auto&& call, int status) {
    KavoTest::LogCapture capture(KavoSetLogSink);
    EXPECT_EQ(status, call());
    std::vector<std::pair<std::string, std::string>> written;
    for (const auto& line : capture.Lines()) {
      EXPECT_EQ(status == KAVO_SUCCESS ? KAVO_LOG_LEVEL_INFO : KAVO_LOG_LEVEL_ERROR, line.level);
      written.emplace_back(line.function, line.message);
    }
    return written;
  };
  using Lines = std::vector<std::pair<std::string, std::string>>;

  const Lines sizeNull{{"KavoGetHtSizeAndVl", "KavoGetHtSizeAndVl failed, size == nullptr || valueLen == nullptr"}};
  EXPECT_EQ(sizeNull, lines([&] { return KavoGetHtSizeAndVl(UNUSED, nullptr, &valueLen, false); }, KAVO_INVALID));
  EXPECT_EQ(sizeNull, lines([&] { return KavoGetHtSizeAndVl(TABLE, &size, nullptr, false); }, KAVO_INVALID));
  EXPECT_EQ((Lines{{"KavoGetHtSizeAndVl", "tableId[8] is nullptr"}}),
            lines([&] { return KavoGetHtSizeAndVl(UNUSED, &size, &valueLen, true); }, KAVO_INVALID));
  EXPECT_EQ(UNTOUCHED, size);
  EXPECT_EQ(UNTOUCHED, valueLen);

  const Lines batchNull{
      {"KavoBatchGetNext", "KavoBatchGetNext failed, batchInfo.elements == nullptr || realNum == null"}};
  KavoHtBatchInfo without = it.info;
  without.elements = nullptr;
  without.eleNum = 0;
  EXPECT_EQ(batchNull, lines([&] { return KavoBatchGetNext(TABLE, nullptr, &it.realNum, &it.iter); }, KAVO_INVALID));
  EXPECT_EQ(batchNull, lines([&] { return KavoBatchGetNext(TABLE, &without, &it.realNum, &it.iter); }, KAVO_INVALID));
  EXPECT_EQ(batchNull, lines([&] { return KavoBatchGetNext(UNUSED, &it.info, nullptr, &it.iter); }, KAVO_INVALID));
  EXPECT_EQ((Lines{{"KavoBatchGetNext", "KavoBatchGetNext failed, iter == nullptr"}}),
            lines([&] { return KavoBatchGetNext(TABLE, &it.info, &it.realNum, nullptr); }, KAVO_INVALID));
  EXPECT_EQ((Lines{{"KavoBatchGetNext", "tableId[8] is nullptr"}}),
            lines([&] { return KavoBatchGetNext(UNUSED, &it.info, &it.realNum, &it.iter); }, KAVO_INVALID));
  EXPECT_EQ(nullptr, it.iter);
  EXPECT_EQ(UNTOUCHED, it.realNum);
  EXPECT_EQ(UNTOUCHED, it.info.tableType);

  void* strange = &size;
  EXPECT_EQ((Lines{{"GetBatchNext", "iter is not a cursor of this table!"},
                   {"KavoBatchGetNext", "KavoBatchGetNext failed, ret[-4]"}}),
            lines([&] { return KavoBatchGetNext(TABLE, &it.info, &it.realNum, &strange); }, KAVO_INVALID));
  EXPECT_EQ(&size, strange);

  it.info.eleNum = 0;
  it.realNum = UNTOUCHED;
  const Lines end{{"KavoBatchGetNext", "KavoBatchGetNext end, eleNum == 0."}};
  EXPECT_EQ(end, lines([&] { return KavoBatchGetNext(UNUSED, &it.info, &it.realNum, &strange); }, KAVO_SUCCESS));
  EXPECT_EQ(end, lines([&] { return KavoBatchGetNext(TABLE, &it.info, &it.realNum, nullptr); }, KAVO_SUCCESS));
  EXPECT_EQ(0U, it.realNum);
  EXPECT_EQ(&size, strange);
}

}  // namespace
