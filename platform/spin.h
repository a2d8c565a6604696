// A pause in a loop that waits for another thread's next few instructions: the processor's, or, every so often, a turn
// for others, where a host has more threads than processors. Never ends by itself: bounded waits are wait.h's.
#pragma once

#include <sched.h>

#ifdef KAVO_EXPLORER
#include "explorer/scheduler.h"
#endif

namespace Qen {

inline void PauseProcessor() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  // Unlike `yield`, which most cores skip, this does take a moment.
  asm volatile("isb" ::: "memory");
#else
  asm volatile("" ::: "memory");
#endif
}

class Spinner {
 public:
  void Pause() noexcept {
#ifdef KAVO_EXPLORER
    if (KavoExplorer::PauseStep()) {
      return;
    }
#endif
    if (++m_pauses % PAUSES_A_TURN != 0) {
      PauseProcessor();
    } else {
      ::sched_yield();
    }
  }

 private:
  static constexpr unsigned PAUSES_A_TURN = 64;
  unsigned m_pauses = 0;
};

}  // namespace Qen
