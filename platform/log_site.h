// One log statement's own state: what the default writer needs to bound a statement that fires a million times a
// second. Zero-initialised, so a statement needs no guard to be ready. It must have static storage: once it has held
// back a line it stays in a list for good.
#pragma once

#include "platform/atomic.h"

namespace Qen {

struct LogSite {
  Atomic<unsigned long long> paidUntilNs{0};   // every line written moves this on by the time that one line costs
  Atomic<unsigned long long> heldBack{0};      // lines not written, ever
  Atomic<unsigned long long> reported{0};      // those of them that a line has told of
  Atomic<unsigned long long> reportedAtNs{0};  // when it did so last
  LogSite* next = nullptr;                     // set before the site enters the list, never after
};

}  // namespace Qen
