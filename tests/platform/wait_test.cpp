#include "platform/wait.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "platform/test_hooks.h"

namespace {
std::vector<useconds_t> g_sleeps;
}  // namespace

// In place of the C library's: what the library sleeps is counted, not slept.
extern "C" int usleep(useconds_t microseconds) {
  g_sleeps.push_back(microseconds);
  return 0;
}

namespace {

// Pauses until the waiter gives up; answers how often it slept, each time for `intervalUs`.
std::size_t SleepsOf(Qen::Waiter& waiter, useconds_t intervalUs) {
  g_sleeps.clear();
  for (int pauses = 0; pauses < 100000 && waiter.Pause(); ++pauses) {
  }
  for (const useconds_t slept : g_sleeps) {
    EXPECT_EQ(slept, intervalUs);
  }
  return g_sleeps.size();
}

class WaitTest : public ::testing::Test {
 protected:
  ~WaitTest() override { Qen::TestHooks::SetWaitLimit(0); }
};

TEST_F(WaitTest, GivesUpAfterExactlyItsSleepsAndStaysSo) {
  for (const unsigned sleeps : {0u, 1u, 50u}) {
    Qen::Waiter waiter(7, sleeps);
    EXPECT_EQ(SleepsOf(waiter, 7), sleeps);
    EXPECT_FALSE(waiter.Pause());
  }
}

TEST_F(WaitTest, StepThatComesAtOnceIsMetWithoutASleep) {
  g_sleeps.clear();
  Qen::Waiter waiter(5, 1000000);
  for (int pause = 0; pause < 50; ++pause) {
    EXPECT_TRUE(waiter.Pause());
  }
  EXPECT_TRUE(g_sleeps.empty());
}

TEST_F(WaitTest, ShorterLimitHoldsForWaitsUnderWayAndNeverLengthensOne) {
  Qen::Waiter waiter(5, 1000000);
  g_sleeps.clear();
  while (g_sleeps.size() < 20) {
    ASSERT_TRUE(waiter.Pause());
  }
  Qen::TestHooks::SetWaitLimit(25);
  EXPECT_EQ(SleepsOf(waiter, 5), 5u);
  Qen::Waiter shorter(5, 10);
  EXPECT_EQ(SleepsOf(shorter, 5), 10u);
  Qen::TestHooks::SetWaitLimit(0);
  EXPECT_TRUE(waiter.Pause());
}

}  // namespace
