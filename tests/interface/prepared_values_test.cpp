// Values that are written before their keys are inserted, seen through the exported functions only.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "interface/status_cases.h"
#include "kavo.h"

namespace {

constexpr unsigned UNUSED = 9;

struct Kind {
  unsigned table;
  unsigned type;
};
class PreparedValues : public KavoTest::StatusCases, public testing::WithParamInterface<Kind> {
 protected:
  static constexpr unsigned SIZE = 50;

  void SetUp() override { ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(m_table, SIZE, LEN, GetParam().type)); }
  void TearDown() override { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(m_table)); }

  void Prepare() {
    unsigned long long count = 0;
    ASSERT_EQ(KAVO_SUCCESS, KavoPrepareMemForValues(m_table, &count));
    ASSERT_EQ(SIZE, count);
  }
  unsigned char* Fetch(unsigned long long index) {
    unsigned char* address = nullptr;
    unsigned len = 0;
    EXPECT_EQ(KAVO_SUCCESS, KavoGetMemForValue(m_table, index, &address, &len));
    EXPECT_EQ(LEN, len);
    return address;
  }
  unsigned char* Fill(unsigned long long index) {
    unsigned char* const address = Fetch(index);
    std::memset(address, static_cast<int>(index + 1), LEN);
    return address;
  }
  // The key must be new. `isFind` says whether it adopted a value.
  unsigned char* Insert(long key, unsigned expectedIsFind) {
    unsigned char* address = nullptr;
    unsigned len = 0;
    unsigned found = 9;
    EXPECT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(m_table, key, &address, &len, &found, 0));
    EXPECT_EQ(expectedIsFind, found) << key;
    return address;
  }

  const unsigned m_table = GetParam().table;
};
INSTANTIATE_TEST_SUITE_P(Tables, PreparedValues,
                         testing::Values(Kind{1, KAVO_TABLE_TYPE_BASIC}, Kind{5000, KAVO_TABLE_TYPE_BASIC},
                                         Kind{1, KAVO_TABLE_TYPE_FILTER}),
                         [](const auto& param) {
                           return (param.param.type == KAVO_TABLE_TYPE_BASIC ? "Basic" : "Filter") +
                                  std::to_string(param.param.table);
                         });

TEST_P(PreparedValues, KeysOfOneThreadAdoptTheValuesInOrder) {
  Prepare();
  std::vector<unsigned char*> addresses;
  for (unsigned i = 0; i < SIZE; ++i) {
    addresses.push_back(Fill(i));
  }
  for (unsigned i = 0; i < SIZE; ++i) {
    const long key = 1000 - static_cast<long>(i) * 3;
    EXPECT_EQ(addresses[i], Insert(key, 1));
    EXPECT_EQ(static_cast<unsigned char>(i + 1), addresses[i][LEN - 1]);
    EXPECT_EQ(addresses[i], Insert(key, 1)) << "present now";
  }
  const unsigned char* const behind = Insert(5000, 0);
  EXPECT_EQ(std::string(LEN, '\0'), std::string(behind, behind + LEN));
}

TEST_P(PreparedValues, EveryValueIsAdoptedOnceByTheKeysOfTwoThreads) {
  Prepare();
  for (unsigned i = 0; i < SIZE; ++i) {
    Fill(i);
  }
  std::vector<unsigned char> seen[2];
  const auto insert = [&](unsigned thread) {
    for (unsigned i = 0; i < SIZE / 2; ++i) {
      seen[thread].push_back(Insert(thread + 2L * i, 1)[0]);
    }
  };
  std::thread other(insert, 1);
  insert(0);
  other.join();
  std::vector<bool> adopted(SIZE + 1);
  for (const auto& values : seen) {
    for (const unsigned char byte : values) {
      EXPECT_FALSE(adopted[byte]) << "value " << static_cast<int>(byte) << " belongs to two keys";
      adopted[byte] = true;
    }
  }
}

// Only what was fetched is adopted, and only by keys that ask for it.
TEST_P(PreparedValues, OtherKeysGetMemoryOfTheirOwn) {
  Prepare();
  unsigned char* const first = Fill(0);
  ASSERT_EQ(KAVO_SUCCESS, KavoInsert(m_table, 1, value.data(), LEN, 0, 0));
  ASSERT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(m_table, 2, value.data(), LEN, 0));
  EXPECT_EQ(1, first[0]) << "not overwritten";
  EXPECT_EQ(first, Insert(3, 1));
  Insert(4, 0);
}

TEST_P(PreparedValues, ConversionAfterInsertsLeavesTheirValuesAlone) {
  value.fill(77);
  ASSERT_EQ(KAVO_SUCCESS, KavoInsert(m_table, 1, value.data(), LEN, 0, 0));
  ASSERT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(m_table, 2, value.data(), LEN, 0));
  Prepare();
  const auto taken = [](unsigned long long index) {
    return std::vector<KavoTest::Expected>{
        {"GetMemForValues", "GetMemForValues failed, index(" + std::to_string(index) + ") is taken"},
        {"GetMemForValue", "pool.GetMemForValues failed"},
        {"KavoGetMemForValue", "KavoGetMemForValue failed, ret[-4]"}};
  };
  const auto fetch = [&](unsigned long long index) {
    return [this, index] { return KavoGetMemForValue(m_table, index, &valuePtr, &valueLen); };
  };
  Check({{"the first key's", KAVO_INVALID, fetch(0), taken(0)}, {"the second's", KAVO_INVALID, fetch(1), taken(1)}});
  unsigned char* const third = Fill(2);
  EXPECT_EQ(third, Fetch(2)) << "may be fetched again while no key has it";
  EXPECT_EQ(third, Insert(3, 1));
  EXPECT_EQ(3, third[0]);
  Check({{"the third's", KAVO_INVALID, fetch(2), taken(2)}});
  for (const long key : {1, 2}) {
    unsigned char* address = nullptr;
    unsigned len = 0;
    ASSERT_EQ(KAVO_SUCCESS, KavoLookup(m_table, key, &address, &len));
    EXPECT_EQ(0, std::memcmp(address, value.data(), LEN));
  }
}

TEST_P(PreparedValues, FunctionsRefuse) {
  using KavoTest::Case;
  unsigned long long count = 7;
  const auto prepare = [&] { return KavoPrepareMemForValues(m_table, &count); };
  const auto fetch = [&](unsigned long long index) {
    return [this, index] { return KavoGetMemForValue(m_table, index, &valuePtr, &valueLen); };
  };
  Check({
      Case{"conversion without count",
           KAVO_INVALID,
           [] { return KavoPrepareMemForValues(UNUSED, nullptr); },
           {{"KavoPrepareMemForValues", "KavoPrepareMemForValues failed, count == nullptr"}}},
      Case{"conversion of an unused id",
           KAVO_INVALID,
           [&] { return KavoPrepareMemForValues(UNUSED, &count); },
           {{"KavoPrepareMemForValues", "tableId[9] is nullptr"}}},
      Case{"fetch without address",
           KAVO_INVALID,
           [&] { return KavoGetMemForValue(UNUSED, 0, nullptr, &valueLen); },
           {{"KavoGetMemForValue", "KavoGetMemForValue failed, valuePtr == nullptr || valueLen == nullptr"}}},
      Case{"fetch without length",
           KAVO_INVALID,
           [&] { return KavoGetMemForValue(UNUSED, 0, &valuePtr, nullptr); },
           {{"KavoGetMemForValue", "KavoGetMemForValue failed, valuePtr == nullptr || valueLen == nullptr"}}},
      Case{"fetch from an unused id",
           KAVO_INVALID,
           [&] { return KavoGetMemForValue(UNUSED, 0, &valuePtr, &valueLen); },
           {{"KavoGetMemForValue", "tableId[9] is nullptr"}}},
      Case{"fetch before the conversion",
           KAVO_NO_MEMORY,
           fetch(0),
           {{"GetMemForValues", "GetMemForValues failed, please PrepareMemForValues first"},
            {"GetMemForValue", "pool.GetMemForValues failed"},
            {"KavoGetMemForValue", "KavoGetMemForValue failed, ret[-3]"}}},
  });
  EXPECT_EQ(7U, count);
  Prepare();
  Check({
      Case{"second conversion",
           KAVO_INVALID,
           prepare,
           {{"PrepareMemForValues", "PrepareMemForValues failed, repeatedly calling function"},
            {"KavoPrepareMemForValues", "KavoPrepareMemForValues failed, ret[-4]"}}},
      Case{"index out of range",
           KAVO_INVALID,
           fetch(SIZE),
           {{"GetMemForValues", "GetMemForValues failed, number lager(50) than init(50)"},
            {"GetMemForValue", "pool.GetMemForValues failed"},
            {"KavoGetMemForValue", "KavoGetMemForValue failed, ret[-4]"}}},
  });
  EXPECT_EQ(SIZE, count) << "is given all the same";
  Fetch(SIZE - 1);
}

}  // namespace
