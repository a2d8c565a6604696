// The explorer finds what it is made to find, and nothing where there is nothing.
#include <gtest/gtest.h>

#include <mutex>

#include "explorer/explore.h"
#include "platform/atomic.h"
#include "platform/mutex.h"
#include "platform/wait.h"

namespace KavoExplorer {
namespace {

// Two threads that add one each, as `Add` does.
template <class Add>
class Counting final : public ScenarioRun {
 public:
  explicit Counting(Add add) : m_add(add) {
    threads = {[this] { m_add(m_count, m_mutex); }, [this] { m_add(m_count, m_mutex); }};
  }
  std::string Check() override { return m_count.load() == 2 ? "" : "an update was lost"; }

 private:
  Add m_add;
  Qen::Atomic<int> m_count{0};
  Qen::Mutex m_mutex;
};

template <class Add>
Report ExploreCounting(Add add) {
  return Explore([add] { return std::make_unique<Counting<Add>>(add); });
}

TEST(Explorer, FindsALostUpdateAndTellsTheSteps) {
  const Report report = ExploreCounting([](auto& count, auto&) { count.store(count.load() + 1); });
  EXPECT_NE(std::string::npos, report.failure.find("an update was lost"));
  EXPECT_NE(std::string::npos, report.failure.find("store")) << report.failure;
}

TEST(Explorer, FindsNothingInUpdatesThatAreWhole) {
  const Report report = ExploreCounting([](auto& count, auto&) { count.fetch_add(1); });
  EXPECT_EQ("", report.failure);
  EXPECT_TRUE(report.exhausted);
  EXPECT_LT(report.schedules, 5U);
}

TEST(Explorer, ALockKeepsOthersOut) {
  const Report report = ExploreCounting([](auto& count, auto& mutex) {
    const std::lock_guard lock(mutex);
    count.store(count.load() + 1);
  });
  EXPECT_EQ("", report.failure);
}

// A schedule that fails does so again.
TEST(Explorer, RepeatsAScheduleThatFailed) {
  const auto add = [](auto& count, auto&) { count.store(count.load() + 1); };
  const std::string failure = ExploreCounting(add).failure;
  const std::size_t begin = failure.find('"') + 1;
  ASSERT_EQ(0, ::setenv("KAVO_EXPLORE_REPLAY", failure.substr(begin, failure.find('"', begin) - begin).c_str(), 1));
  const Report again = ExploreCounting(add);
  ASSERT_EQ(0, ::setenv("KAVO_EXPLORE_REPLAY", "0x9 1x9", 1));
  const Report inOrder = ExploreCounting(add);
  ASSERT_EQ(0, ::unsetenv("KAVO_EXPLORE_REPLAY"));
  EXPECT_NE("", again.failure);
  EXPECT_EQ("", inOrder.failure);
}

class TwoLocks final : public ScenarioRun {
 public:
  explicit TwoLocks(bool crosswise) {
    threads = {[this] { Take(m_first, m_second); },
               [this, crosswise] { crosswise ? Take(m_second, m_first) : Take(m_first, m_second); }};
  }
  std::string Check() override { return {}; }

 private:
  static void Take(Qen::Mutex& one, Qen::Mutex& other) {
    const std::lock_guard first(one);
    const std::lock_guard second(other);
  }
  Qen::Mutex m_first;
  Qen::Mutex m_second;
};

TEST(Explorer, FindsADeadlock) {
  EXPECT_NE(std::string::npos, Explore([] { return std::make_unique<TwoLocks>(true); }).failure.find("deadlock"));
  EXPECT_EQ("", Explore([] { return std::make_unique<TwoLocks>(false); }).failure);
}

// One waits for what the other stores, which may be what it waits for or not.
class Waiting final : public ScenarioRun {
 public:
  explicit Waiting(int stored) {
    threads = {[this] {
                 Qen::Waiter waiter(1, 1);
                 while (m_word.load() != 2) {
                   waiter.Pause();
                 }
               },
               [this, stored] {
                 m_word.store(1);
                 m_word.store(stored);
               }};
  }
  std::string Check() override { return {}; }

 private:
  Qen::Atomic<int> m_word{0};
};

TEST(Explorer, AWaitEndsWithItsConditionAndAWaitForNothingIsFound) {
  EXPECT_EQ("", Explore([] { return std::make_unique<Waiting>(2); }).failure);
  EXPECT_NE(std::string::npos, Explore([] { return std::make_unique<Waiting>(3); }).failure.find("deadlock"));
}

// Two threads meet only in the middle of the other's way, which takes three preemptions.
class Crossing final : public ScenarioRun {
 public:
  Crossing() {
    threads = {[this] {
                 m_turn.store(1);
                 m_seen += m_turn.load() == 2 ? 1 : 0;
                 m_turn.store(3);
                 m_seen += m_turn.load() == 4 ? 1 : 0;
               },
               [this] {
                 m_seen += m_turn.load() == 1 ? 1 : 0;
                 m_turn.store(2);
                 m_seen += m_turn.load() == 3 ? 1 : 0;
                 m_turn.store(4);
               }};
  }
  std::string Check() override { return m_seen == 4 ? "they met" : ""; }

 private:
  Qen::Atomic<int> m_turn{0};
  int m_seen = 0;
};

TEST(Explorer, FindsWhatTakesThreePreemptions) {
  EXPECT_EQ("they met", Explore([] { return std::make_unique<Crossing>(); }).failure.substr(0, 8));
}

}  // namespace
}  // namespace KavoExplorer
