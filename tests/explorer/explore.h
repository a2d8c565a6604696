// Searches the orders in which the threads of a scenario can take their steps, for one that breaks a promise.
//
// First the orders without a preemption, then all with one, two, three and so on: most mistakes need few. Where the
// budget does not reach so far, what is left of it goes to random orders, whose seed is printed. Orders that only
// repeat another are left out (scheduler.h).
//
// A failure is reported with its schedule, which KAVO_EXPLORE_REPLAY runs again, and with its steps.
//
//   KAVO_EXPLORE_SCHEDULES   schedules for each scenario
//   KAVO_EXPLORE_REPLAY      one schedule: "0x17 1x5 0x9" is 17 steps of thread 0, 5 of thread 1, 9 of thread 0
//   KAVO_TEST_SEED           seed of the random orders
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KavoExplorer {

// One run of a scenario: made anew for each schedule.
class ScenarioRun {
 public:
  virtual ~ScenarioRun() = default;

  // What the threads do, under the scheduler.
  std::vector<std::function<void()>> threads;

  // After the threads have ended. Empty, or what is wrong.
  virtual std::string Check() = 0;
  // A name for an address.
  virtual std::string NameOf(const void* where) const { return testing::PrintToString(where); }
};

// Explores and prints how far; what was found wrong, with its schedule and steps, or nothing.
std::string Explore(const std::function<std::unique_ptr<ScenarioRun>()>& make);

// Fails the test if something is.
void ExpectHolds(const std::function<std::unique_ptr<ScenarioRun>()>& make);

// The same, where each run is a Run: the calls of `before` have happened, and each thread makes one of `threads`.
template <class Run, class... Arguments>
void ExpectCallsHold(const std::vector<std::function<void(Run&)>>& before,
                     const std::vector<std::function<void(Run&)>>& threads, const Arguments&... arguments) {
  ExpectHolds([&] {
    auto run = std::make_unique<Run>(arguments...);
    for (const auto& call : before) {
      call(*run);
    }
    for (const auto& call : threads) {
      run->threads.emplace_back([&call, &self = *run] { call(self); });
    }
    return run;
  });
}

}  // namespace KavoExplorer
