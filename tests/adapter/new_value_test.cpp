// A key that an insert creates becomes visible with its whole value, also when the insert goes on for long after that:
// it may have to help the table grow.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <tuple>

#include "kavo.h"
#include "support/log_capture.h"
#include "support/parking.h"

namespace KavoTest {
namespace {

class NewValue : public testing::TestWithParam<std::tuple<unsigned, bool>> {};
INSTANTIATE_TEST_SUITE_P(TypesAndCalls, NewValue,
                         testing::Combine(testing::Values(KAVO_TABLE_TYPE_BASIC, KAVO_TABLE_TYPE_FILTER),
                                          testing::Bool()));

TEST_P(NewValue, IsThereAsSoonAsTheKeyIs) {
  constexpr unsigned LEN = 24;
  const auto [type, orUpdate] = GetParam();
  ASSERT_EQ(KAVO_SUCCESS, KavoInitHashTable(1, 8, LEN, type));
  Parking growing("Mover.Joined");
  std::atomic<long> last{-1};
  auto inserter = std::async(std::launch::async, [&, update = orUpdate] {
    unsigned char value[LEN];
    for (long key = 0; key < 100; ++key) {
      std::fill(value, value + LEN, static_cast<unsigned char>(key + 1));
      last = key;
      EXPECT_EQ(KAVO_SUCCESS,
                update ? KavoInsertOrUpdate(1, key, value, LEN, 0) : KavoInsert(1, key, value, LEN, 0, 7));
    }
  });
  ASSERT_TRUE(growing.WaitUntilParked());
  const long key = last;
  unsigned char* address = nullptr;
  unsigned len = 0;
  ASSERT_EQ(KAVO_SUCCESS, KavoLookup(1, key, &address, &len)) << "the insert that grows the table has stored its key";
  EXPECT_EQ(std::string(LEN, static_cast<char>(key + 1)), std::string(address, address + LEN));
  growing.Release();
  inserter.get();
  EXPECT_EQ(KAVO_SUCCESS, KavoUninitHashTable(1));
}

}  // namespace
}  // namespace KavoTest
