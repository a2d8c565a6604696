// The checker itself: it rejects what a faulty table would do, and nothing else.
#include "stress/history.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include "support/seed.h"

namespace KavoTest {
namespace {

using enum Operation::Kind;

TEST(Linearization, RejectsWhatAFaultyTableWouldDo) {
  const std::vector<std::pair<const char*, History>> faults{
      {"a stale read", {{CREATE, 1, 1, 2}, {WRITE, 2, 3, 4}, {READ, 1, 5, 6}}},
      {"a read that goes back", {{CREATE, 1, 1, 2}, {WRITE, 2, 3, 10}, {READ, 2, 4, 5}, {READ, 1, 6, 7}}},
      {"a lost insert", {{CREATE, 1, 1, 2}, {ABSENT, 0, 3, 4}}},
      {"a lost insert, seen by another reader", {{CREATE, 1, 1, 9}, {READ, 1, 2, 3}, {ABSENT, 0, 4, 5}}},
      {"two creators", {{CREATE, 1, 1, 4}, {CREATE, 2, 2, 3}}},
      {"a creator after an update", {{PUT, 1, 1, 2}, {CREATE, 2, 3, 4}}},
      {"a lost update", {{CREATE, 1, 1, 2}, {WRITE, 2, 3, 6}, {WRITE, 3, 4, 5}, {READ, 1, 7, 8}}},
      {"two orders of two updates",
       {{CREATE, 1, 1, 2}, {WRITE, 2, 3, 9}, {WRITE, 3, 4, 10}, {READ, 2, 11, 12}, {READ, 3, 13, 14}}},
      {"refused because of nothing", {{REFUSED, 0, 1, 2}, {CREATE, 1, 3, 4}}},
      {"a value that nobody wrote", {{CREATE, 1, 1, 2}, {READ, 3, 3, 4}}}};
  for (const auto& [name, history] : faults) {
    EXPECT_FALSE(Linearization::Exists(history)) << name;
  }
}

TEST(Linearization, AcceptsOverlappingOperationsInAnyOrderThatFits) {
  EXPECT_TRUE(Linearization::Exists({}));
  EXPECT_TRUE(Linearization::Exists({{CREATE, 1, 1, 8}, {READ, 1, 2, 3}, {REFUSED, 0, 4, 5}, {READ, 1, 6, 7}}));
  EXPECT_TRUE(Linearization::Exists({{ABSENT, 0, 3, 4}, {CREATE, 1, 1, 8}, {READ, 1, 5, 6}}));
  EXPECT_TRUE(Linearization::Exists({{PUT, 1, 1, 9}, {CREATE, 2, 2, 8}, {READ, 2, 3, 4}, {READ, 1, 10, 11}}));
}

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
