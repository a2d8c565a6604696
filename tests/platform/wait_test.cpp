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

TEST(Wait, TriesWithoutASleepAtFirstAndGivesUpAfterExactlyItsSleeps) {
  for (const unsigned sleeps : {0U, 1U, 50U}) {
    g_sleeps.clear();
    Qen::Waiter waiter(7, sleeps);
    for (int pauses = 0; pauses < 100000 && waiter.Pause(); ++pauses) {
      EXPECT_TRUE(pauses >= 50 || g_sleeps.empty());
    }
    EXPECT_EQ(g_sleeps, std::vector<useconds_t>(sleeps, 7));
    EXPECT_FALSE(waiter.Pause());
  }
}

}  // namespace
