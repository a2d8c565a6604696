#include "platform/wait.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

namespace {
std::vector<useconds_t> g_sleeps;
}  // namespace

// In place of the C library's: what the library sleeps is counted, not slept.
extern "C" int usleep(useconds_t microseconds) {
  g_sleeps.push_back(microseconds);
  return 0;
}

namespace {

TEST(Wait, GivesUpAfterExactlyItsSleepsAndStaysSo) {
  for (const unsigned sleeps : {0U, 1U, 50U}) {
    g_sleeps.clear();
    Qen::Waiter waiter(7, sleeps);
    for (int pauses = 0; pauses < 100000 && waiter.Pause(); ++pauses) {
    }
    EXPECT_EQ(g_sleeps, std::vector<useconds_t>(sleeps, 7));
    EXPECT_FALSE(waiter.Pause());
  }
}

TEST(Wait, AStepThatComesAtOnceIsMetWithoutASleep) {
  g_sleeps.clear();
  Qen::Waiter waiter(5, 1000000);
  for (int pause = 0; pause < 50; ++pause) {
    EXPECT_TRUE(waiter.Pause());
  }
  EXPECT_TRUE(g_sleeps.empty());
}

}  // namespace
