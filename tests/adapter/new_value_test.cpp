// A key that an insert creates becomes visible with its whole value, also when the insert goes on for long after that:
// it may have to help the table grow.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <tuple>

#include "kavo.hpp"
#include "support/parking.h"

namespace KavoTest {
namespace {

class NewValue : public testing::TestWithParam<std::tuple<kavo::TableType, bool>> {};
INSTANTIATE_TEST_SUITE_P(TypesAndCalls, NewValue,
                         testing::Combine(testing::Values(kavo::TableType::BASIC, kavo::TableType::FILTER),
                                          testing::Bool()));

TEST_P(NewValue, IsThereAsSoonAsTheKeyIs) {
  constexpr unsigned LEN = 24;
  const auto [type, orUpdate] = GetParam();
  const kavo::Table table(1, 8, LEN, type);
  Parking growing("Mover.Joined");
  std::atomic<long> last{-1};
  auto inserter = std::async(std::launch::async, [&, update = orUpdate] {
    for (long key = 0; key < 100; ++key) {
      last = key;
      const std::string value(LEN, static_cast<char>(key + 1));
      update ? table.InsertOrUpdate(key, value) : table.Insert(key, value);
    }
  });
  ASSERT_TRUE(growing.WaitUntilParked());
  const long key = last;
  const auto row = table.TryLookup<char>(key);
  ASSERT_TRUE(row) << "the insert that grows the table has stored its key";
  EXPECT_EQ(std::string(LEN, static_cast<char>(key + 1)), std::string(row->begin(), row->end()));
  growing.Release();
  inserter.get();
}

}  // namespace
}  // namespace KavoTest
