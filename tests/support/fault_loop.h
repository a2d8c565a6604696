// Runs something with its first allocation failing, then with its second, and so on. Testing build only.
#pragma once

#include <gtest/gtest.h>

#include "platform/test_hooks.h"

namespace KavoTest {

// Calls attempt(), whose n-th allocation on this thread fails, for n = 1, 2, ... until a run needs fewer than n. With
// `stay` all later ones of that run fail as well. Inside the attempt, FaultWasInjected() tells a run that met its fault
// from the last one. Returns the number of runs that met one. Stops early when the attempt fails the test fatally.
template <class Attempt>
unsigned long long ForEachFailingAllocation(Attempt&& attempt, bool stay = false, unsigned long long most = 100000) {
  namespace Hooks = Qen::TestHooks;
  struct Disarm {
    ~Disarm() { Hooks::FailAllocation(0); }
  };
  for (unsigned long long nth = 1; nth <= most; ++nth) {
    const Disarm disarm;
    SCOPED_TRACE(::testing::Message() << "allocation " << nth << " fails");
    Hooks::FailAllocation(nth, stay);
    attempt();
    if (Hooks::AllocationFailures() == 0 || ::testing::Test::HasFatalFailure()) {
      return nth - 1;
    }
  }
  ADD_FAILURE() << "still failing after " << most << " runs";
  return most;
}

// The same with something made anew for each run, before the allocation is set to fail: attempt(subject, n).
template <class SetUp, class Attempt>
unsigned long long FailEachAllocationOf(SetUp&& setUp, Attempt&& attempt) {
  for (unsigned long long nth = 1;; ++nth) {
    SCOPED_TRACE(::testing::Message() << "allocation " << nth << " fails");
    auto subject = setUp();
    Qen::TestHooks::FailAllocation(nth);
    attempt(*subject, nth);
    if (nth > 1000 || ::testing::Test::HasFatalFailure()) {
      ADD_FAILURE() << "gave up";
      return nth;
    }
    if (Qen::TestHooks::AllocationFailures() == 0) {
      return nth - 1;
    }
  }
}

inline bool FaultWasInjected() {
  return Qen::TestHooks::AllocationFailures() != 0;
}

}  // namespace KavoTest
