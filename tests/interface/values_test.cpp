// What callers may count on about ids, lengths and values, seen through the exported functions only.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "kavo.h"
#include "support/values.h"

namespace KavoTest {
namespace {

class Ids : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(, Ids, testing::Values(0U, 1023U, 1024U, 4294967295U));

TEST_P(Ids, TableIsReachedUnderItsIdOnlyAndGoneAfterwards) {
  const unsigned id = GetParam();
  auto value = ValueOf(0, 8);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(id, 0, 8, KAVO_TABLE_TYPE_BASIC));
    EXPECT_EQ(KAVO_EXISTS, KavoInitHashTable(id, 8, 4, KAVO_TABLE_TYPE_BASIC));
    EXPECT_TRUE(Stored(id, 0).empty()) << "a new table holds nothing of the one before";
    EXPECT_EQ(KAVO_SUCCESS, KavoInsert(id, 0, value.data(), 8, 0, 1));
    EXPECT_EQ(value, Stored(id, 0));
    EXPECT_EQ(KAVO_INVALID, KavoInsert(id ^ 1, 0, value.data(), 8, 0, 1)) << "the neighbour is not in use";
    EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(id));
    EXPECT_EQ(KAVO_INVALID, KavoInsert(id, 0, value.data(), 8, 0, 1));
  }
}

class ValueLengths : public testing::TestWithParam<unsigned> {};
INSTANTIATE_TEST_SUITE_P(, ValueLengths, testing::Values(1U, 3U, 13U, 64U, 4099U));

TEST_P(ValueLengths, BytesAndAddressesOutliveGrowth) {
  const unsigned len = GetParam();
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, len, KAVO_TABLE_TYPE_BASIC));
  std::vector<unsigned char*> addresses;
  for (long key = 0; key < 500; ++key) {
    auto value = ValueOf(key, len);
    ASSERT_EQ(KAVO_SUCCESS, KavoInsert(1, key, value.data(), len, 0, 1));
    addresses.push_back(AddressOf(1, key));
    EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(addresses.back()) % 8);
  }
  for (long key = 0; key < 500; ++key) {
    EXPECT_EQ(addresses[static_cast<std::size_t>(key)], AddressOf(1, key));
    EXPECT_EQ(ValueOf(key, len), Stored(1, key));
  }
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

// From their own address bytes may come; such as overlap it otherwise are not copied, and leave zeros.
TEST(Values, OverlappingBytesZeroTheValueAndTheOwnAddressKeepsIt) {
  constexpr unsigned VALUE_BYTES = 24;
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, VALUE_BYTES, KAVO_TABLE_TYPE_BASIC));
  auto value = ValueOf(1, VALUE_BYTES);
  const auto update = [](unsigned char* bytes) { return KavoUpdate(1, 1, bytes, VALUE_BYTES); };
  const auto insertOrUpdate = [](unsigned char* bytes) { return KavoInsertOrUpdate(1, 1, bytes, VALUE_BYTES, 0); };
  for (int (*const write)(unsigned char*) : {+update, +insertOrUpdate}) {
    ASSERT_EQ(KAVO_SUCCESS, KavoInsertOrUpdate(1, 1, value.data(), VALUE_BYTES, 0));
    EXPECT_EQ(KAVO_SUCCESS, write(AddressOf(1, 1)));
    EXPECT_EQ(value, Stored(1, 1));
    EXPECT_EQ(KAVO_NO_MEMORY, write(AddressOf(1, 1) + 1));
    EXPECT_EQ(Bytes(VALUE_BYTES), Stored(1, 1));
  }
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

}  // namespace
}  // namespace KavoTest
