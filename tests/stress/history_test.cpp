// The checker itself, beside one that tries all orders.
#include "stress/history.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <optional>
#include <random>
#include <vector>

#include "support/seed.h"

namespace KavoTest {
namespace {

using enum Operation::Kind;

// Whether one of all orders is right, by trying them.
bool SomeOrderIsRight(const History& history) {
  std::vector<std::size_t> order(history.size());
  std::iota(order.begin(), order.end(), 0U);
  do {
    bool right = true;
    std::optional<std::uint64_t> state;
    for (std::size_t i = 0; i < order.size() && right; ++i) {
      const Operation& now = history[order[i]];
      right = std::all_of(order.begin() + static_cast<long>(i), order.end(),
                          [&](std::size_t later) { return history[later].responded >= now.invoked; });
      const bool mustBeAbsent = now.kind == CREATE || now.kind == ABSENT;
      right = right && (now.kind == PUT || mustBeAbsent == !state) && (now.kind != READ || state == now.value);
      state = now.kind <= WRITE ? now.value : state;
    }
    if (right) {
      return true;
    }
  } while (std::next_permutation(order.begin(), order.end()));
  return false;
}

TEST(Linearization, AgreesWithTryingAllOrdersOfShortHistories) {
  std::mt19937_64 random(TestSeed());
  unsigned linearizable = 0;
  constexpr unsigned HISTORIES = 20'000;
  for (unsigned n = 0; n < HISTORIES; ++n) {
    History history(1 + random() % 6);
    std::vector<std::uint64_t> stamps(history.size() * 2);
    std::iota(stamps.begin(), stamps.end(), 1U);
    std::shuffle(stamps.begin(), stamps.end(), random);
    for (std::size_t i = 0; i < history.size(); ++i) {
      const auto [invoked, responded] = std::minmax(stamps[2 * i], stamps[2 * i + 1]);
      history[i] = {static_cast<Operation::Kind>(random() % 6), 1 + random() % 3, invoked, responded};
    }
    const bool expected = SomeOrderIsRight(history);
    linearizable += expected;
    ASSERT_EQ(expected, Linearization::Exists(history)) << testing::PrintToString(history);
  }
  EXPECT_GT(linearizable, HISTORIES / 20);
  EXPECT_LT(linearizable, HISTORIES / 2);
}

}  // namespace
}  // namespace KavoTest
