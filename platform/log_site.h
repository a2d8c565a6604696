// One log statement's own state: what the default writer needs to bound a statement that fires a million times a
// second. Constant-initialised, so a statement needs no guard to be ready. It must have static storage: once it has
// held back a log line it stays in a list for good.
#pragma once

#include "platform/atomic.h"

namespace Qen {

struct LogSite {
  // Where the statement stands, for the report of what it has held back.
  const char* unit = "";
  const char* function = "";
  int line = 0;

  Atomic<unsigned long long> paidUntilNs{0};   // every line written moves this on by the time that one line costs
  Atomic<unsigned long long> heldBack{0};      // lines not written, ever
  Atomic<unsigned long long> reported{0};      // those of them that were reported
  Atomic<unsigned long long> nextReportNs{0};  // not before
  LogSite* next = nullptr;                     // set before the site enters the list, never after
};

}  // namespace Qen
