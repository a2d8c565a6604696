// Runs something with its first allocation failing, then with its second, and so on. Testing build only.
#pragma once

#include <gtest/gtest.h>

#include "platform/test_hooks.h"

namespace KavoTest {

// In an attempt: tells one that met its fault from the last one.
inline bool FaultWasInjected() {
  return Qen::TestHooks::AllocationFailures() != 0;
}

// Calls attempt(), whose n-th allocation on this thread fails, for n = 1, 2, ... until a run needs fewer than n; with
// `stay` every later one fails too. Returns the number of runs that met a fault. Stops early when the attempt fails the
// test.
template <class Attempt>
unsigned long long ForEachFailingAllocation(Attempt&& attempt, bool stay = false) {
  for (unsigned long long nth = 1;; ++nth) {
    SCOPED_TRACE(::testing::Message() << "allocation " << nth << (stay ? " and all later ones fail" : " fails"));
    Qen::TestHooks::FailAllocation(nth, stay);
    attempt();
    Qen::TestHooks::FailAllocation(0);
    if (!FaultWasInjected() || ::testing::Test::HasFailure()) {
      return nth - 1;
    }
  }
}

}  // namespace KavoTest
