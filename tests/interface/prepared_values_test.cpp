// Values that are written before their keys are inserted, by two threads at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "kavo.h"

namespace {

class PreparedValues : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(Types, PreparedValues, testing::Values(KAVO_TABLE_TYPE_BASIC, KAVO_TABLE_TYPE_FILTER));

TEST_P(PreparedValues, EveryValueIsAdoptedOnceByTheKeysOfTwoThreads) {
  constexpr unsigned char SIZE = 200;
  constexpr unsigned LEN = 8;
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(5000, SIZE, LEN, GetParam()));
  unsigned long long count = 0;
  ASSERT_EQ(KAVO_SUCCESS, KavoPrepareMemForValues(5000, &count));
  ASSERT_EQ(SIZE, count);
  std::vector<unsigned char> all(SIZE);
  for (unsigned char i = 0; i < SIZE; ++i) {
    unsigned char* address = nullptr;
    unsigned len = 0;
    ASSERT_EQ(KAVO_SUCCESS, KavoGetMemForValue(5000, i, &address, &len));
    std::memset(address, i, LEN);
    all[i] = i;
  }
  std::vector<unsigned char> adopted(SIZE);
  const auto insert = [&adopted](unsigned long first) {
    for (unsigned long key = first; key < SIZE; key += 2) {
      unsigned char* address = nullptr;
      unsigned len = 0;
      unsigned isFind = 0;
      ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(5000, static_cast<long>(key), &address, &len, &isFind, 0));
      EXPECT_EQ(1U, isFind);
      adopted[key] = address[LEN - 1];
    }
  };
  std::thread other(insert, 1);
  insert(0);
  other.join();
  std::sort(adopted.begin(), adopted.end());
  EXPECT_EQ(all, adopted);
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(5000));
}

}  // namespace
