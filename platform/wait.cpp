#include "platform/wait.h"

#include <sched.h>
#include <unistd.h>

#include "platform/spin.h"
#include "platform/test_hooks.h"

#ifdef KAVO_EXPLORER
#include "explorer/scheduler.h"
#endif

namespace Qen {
namespace {

constexpr unsigned SPIN_PAUSES = 100;
// The last of them give the processor away, for a host with more threads than processors.
constexpr unsigned FIRST_YIELD = 90;

unsigned long long ShortenedLimit(unsigned long long maxSleeps) noexcept {
#ifdef KAVO_TESTING
  const unsigned long long limit = TestHooks::WaitLimit();
  return limit != 0 && limit < maxSleeps ? limit : maxSleeps;
#else
  return maxSleeps;
#endif
}

}  // namespace

bool Waiter::Pause() noexcept {
#ifdef KAVO_EXPLORER
  if (KavoExplorer::PauseStep()) {
    return true;
  }
#endif
  if (m_spins < SPIN_PAUSES) {
    if (m_spins < FIRST_YIELD) {
      PauseProcessor();
    } else {
      ::sched_yield();
    }
    ++m_spins;
    return true;
  }
  if (m_sleeps >= ShortenedLimit(m_maxSleeps)) {
    return false;
  }
  ++m_sleeps;
  ::usleep(m_intervalUs);
  return true;
}

}  // namespace Qen
