#include "platform/test_hooks.h"

#ifdef KAVO_TESTING

#include "platform/atomic.h"

// Sequentially consistent throughout: a test build has no speed to lose.
namespace Qen::TestHooks {
namespace {

constinit Atomic<PointHandler> g_handler{nullptr};
constinit Atomic<long long> g_heapBytes{0};
constinit Atomic<long long> g_mappedBytes{0};
constinit Atomic<unsigned long long> g_waitLimit{0};

struct FaultPlan {
  unsigned long long nth = 0;
  bool stay = false;
  unsigned long long seen = 0;
  unsigned long long failures = 0;
};

// A thread's own, so that a test's fault hits only what the test itself calls.
constinit thread_local FaultPlan t_plan{};

}  // namespace

void SetPointHandler(PointHandler handler) noexcept {
  g_handler.store(handler);
}

void Reach(const char* point) {
  if (const PointHandler handler = g_handler.load()) {
    handler(point);
  }
}

void FailAllocation(unsigned long long nth, bool stay) noexcept {
  if (nth != 0) {
    t_plan = FaultPlan{nth, stay, 0, 0};
  } else {
    t_plan.nth = 0;
  }
}

unsigned long long AllocationsSeen() noexcept {
  return t_plan.seen;
}

unsigned long long AllocationFailures() noexcept {
  return t_plan.failures;
}

bool ShouldFailAllocation() noexcept {
  if (t_plan.nth == 0) {
    return false;
  }
  ++t_plan.seen;
  const bool fail = t_plan.stay ? t_plan.seen >= t_plan.nth : t_plan.seen == t_plan.nth;
  t_plan.failures += fail ? 1 : 0;
  return fail;
}

long long HeapBytesInUse() noexcept {
  return g_heapBytes.load();
}

long long MappedBytesInUse() noexcept {
  return g_mappedBytes.load();
}

void CountHeapBytes(long long change) noexcept {
  g_heapBytes.fetch_add(change);
}

void CountMappedBytes(long long change) noexcept {
  g_mappedBytes.fetch_add(change);
}

void SetWaitLimit(unsigned long long sleeps) noexcept {
  g_waitLimit.store(sleeps);
}

unsigned long long WaitLimit() noexcept {
  return g_waitLimit.load();
}

}  // namespace Qen::TestHooks

#endif
