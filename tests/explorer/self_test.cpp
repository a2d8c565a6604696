// The explorer finds what it is made to find, and nothing where there is nothing.
#include <gtest/gtest.h>

#include <mutex>

#include "explorer/explore.h"
#include "platform/atomic.h"
#include "platform/mutex.h"

namespace KavoExplorer {
namespace {

// Two threads that add one each, in two steps.
class Counting final : public ScenarioRun {
 public:
  Counting() {
    threads = {[this] { m_count.store(m_count.load() + 1); }, [this] { m_count.store(m_count.load() + 1); }};
  }
  std::string Check() override { return m_count.load() == 2 ? "" : "an update was lost"; }

 private:
  Qen::Atomic<int> m_count{0};
};

// With its steps, and with a schedule that fails again.
TEST(Explorer, FindsALostUpdate) {
  const auto explore = [] { return Explore([] { return std::make_unique<Counting>(); }); };
  const std::string failure = explore();
  EXPECT_EQ("an update was lost", failure.substr(0, 18));
  EXPECT_NE(std::string::npos, failure.find("store")) << failure;

  const std::size_t begin = failure.find('"') + 1;
  ASSERT_EQ(0, ::setenv("KAVO_EXPLORE_REPLAY", failure.substr(begin, failure.find('"', begin) - begin).c_str(), 1));
  EXPECT_EQ("an update was lost", explore().substr(0, 18));
  ASSERT_EQ(0, ::setenv("KAVO_EXPLORE_REPLAY", "0x9 1x9", 1));
  EXPECT_EQ("", explore());
  ASSERT_EQ(0, ::unsetenv("KAVO_EXPLORE_REPLAY"));
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
  EXPECT_EXIT(Explore([] { return std::make_unique<TwoLocks>(true); }), testing::ExitedWithCode(1), "deadlock");
  EXPECT_EQ("", Explore([] { return std::make_unique<TwoLocks>(false); }));
}

}  // namespace
}  // namespace KavoExplorer
