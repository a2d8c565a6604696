// What callers may count on about ids, keys and values, seen through the exported functions only.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "kavo.h"

namespace {

std::vector<unsigned char> ValueOf(long key, unsigned len) {
  std::vector<unsigned char> bytes(len);
  for (unsigned i = 0; i < len; ++i) {
    bytes[i] = static_cast<unsigned char>(static_cast<unsigned long>(key) * 31 + i + 1);
  }
  return bytes;
}

std::vector<unsigned char> Stored(unsigned table, long key) {
  unsigned char* address = nullptr;
  unsigned len = 0;
  if (KavoLookup(table, key, &address, &len) != KAVO_SUCCESS) {
    return {};
  }
  return {address, address + len};
}

class Ids : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(, Ids, testing::Values(0U, 1023U, 1024U, 5000U, 4294967295U));

TEST_P(Ids, TableIsReachedUnderItsIdOnlyAndGoneAfterwards) {
  const unsigned id = GetParam();
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 0, 8, KAVO_TABLE_TYPE_BASIC));
    EXPECT_EQ(KAVO_EXISTS, KavoInitHashTable(id, 8, 4, KAVO_TABLE_TYPE_BASIC));
    EXPECT_TRUE(Stored(id, 0).empty()) << "a new table holds nothing of the one before";
    auto value = ValueOf(0, 8);
    EXPECT_EQ(KAVO_SUCCESS, KavoInsert(id, 0, value.data(), 8, 0, 1));
    EXPECT_EQ(value, Stored(id, 0));
    EXPECT_EQ(KAVO_INVALID, KavoInsert(id ^ 1, 0, value.data(), 8, 0, 1)) << "the neighbour is not in use";
    EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    EXPECT_EQ(KAVO_INVALID, KavoUninitHashTable(id));
    EXPECT_EQ(KAVO_INVALID, KavoInsert(id, 0, value.data(), 8, 0, 1));
  }
}

class ValueLengths : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(, ValueLengths, testing::Values(1U, 3U, 8U, 13U, 64U, 4099U));

TEST_P(ValueLengths, BytesAndAddressesOutliveGrowth) {
  const unsigned len = GetParam();
  const long keys = 500;  // far beyond the size asked for
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, len, KAVO_TABLE_TYPE_BASIC));
  std::vector<unsigned char*> addresses;
  for (long key = 0; key < keys; ++key) {
    auto value = ValueOf(key, len);
    ASSERT_EQ(KAVO_SUCCESS, KavoInsert(1, key, value.data(), len, 0, 1));
    unsigned char* address = nullptr;
    unsigned stored = 0;
    ASSERT_EQ(KAVO_SUCCESS, KavoLookup(1, key, &address, &stored));
    EXPECT_EQ(len, stored);
    EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(address) % 8);
    addresses.push_back(address);
  }
  for (long key = 0; key < keys; ++key) {
    unsigned char* address = nullptr;
    unsigned stored = 0;
    ASSERT_EQ(KAVO_SUCCESS, KavoLookup(1, key, &address, &stored));
    EXPECT_EQ(addresses[static_cast<std::size_t>(key)], address);
    EXPECT_EQ(ValueOf(key, len), std::vector<unsigned char>(address, address + stored));
  }
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

// 4,294,967,291 bytes a value are allowed; a million of them exceed any machine.
TEST(Values, LargestLengthFailsForLackOfMemoryWithoutHarm) {
  ASSERT_EQ(KAVO_NO_MEMORY, KavoInitHashTable(1, 1'000'000, 4294967291U, KAVO_TABLE_TYPE_BASIC));
  EXPECT_EQ(KAVO_INVALID, KavoUninitHashTable(1));
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 1'000, 1, KAVO_TABLE_TYPE_BASIC));
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

class OneTable : public testing::Test {
 protected:
  static constexpr unsigned LEN = 24;
  void SetUp() override { ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 64, LEN, KAVO_TABLE_TYPE_BASIC)); }
  void TearDown() override { EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1)); }
};

TEST_F(OneTable, FirstInsertWinsAndInsertOrUpdateOverwrites) {
  auto first = ValueOf(1, LEN);
  auto second = ValueOf(2, LEN);
  EXPECT_EQ(KAVO_SUCCESS, KavoInsert(1, LONG_MAX, first.data(), LEN, 0, 1));
  EXPECT_EQ(KAVO_INVALID, KavoInsert(1, LONG_MAX, second.data(), LEN, 0, 1));
  EXPECT_EQ(first, Stored(1, LONG_MAX));
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(1, LONG_MAX, second.data(), LEN, 0));
  EXPECT_EQ(second, Stored(1, LONG_MAX));
  EXPECT_EQ(KAVO_SUCCESS, KavoUpdate(1, LONG_MAX, first.data(), LEN));
  EXPECT_EQ(first, Stored(1, LONG_MAX));
}

TEST_F(OneTable, LookupOrInsertCreatesZeroBytesOnceAndKeepsTheAddress) {
  unsigned char* created = nullptr;
  unsigned char* found = nullptr;
  unsigned len = 0;
  unsigned isFind = 9;
  ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(1, 5, &created, &len, &isFind, 0));
  EXPECT_EQ(0U, isFind);
  EXPECT_EQ(LEN, len);
  EXPECT_EQ(std::vector<unsigned char>(LEN), std::vector<unsigned char>(created, created + len));
  created[3] = 7;
  ASSERT_EQ(KAVO_SUCCESS, KavoLookupOrInsert(1, 5, &found, &len, &isFind, 0));
  EXPECT_EQ(1U, isFind);
  EXPECT_EQ(created, found);
  EXPECT_EQ(7, found[3]);
}

TEST_F(OneTable, UpdateFromTheOwnAddressKeepsTheBytes) {
  auto value = ValueOf(1, LEN);
  ASSERT_EQ(KAVO_SUCCESS, KavoInsert(1, 1, value.data(), LEN, 0, 1));
  unsigned char* address = nullptr;
  unsigned len = 0;
  ASSERT_EQ(KAVO_SUCCESS, KavoLookupForUpdate(1, 1, &address, &len));
  EXPECT_EQ(KAVO_SUCCESS, KavoUpdate(1, 1, address, len));
  EXPECT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(1, 1, address, len, 0));
  EXPECT_EQ(value, Stored(1, 1));
}

}  // namespace
