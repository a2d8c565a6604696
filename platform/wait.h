// The one helper behind every bounded wait for another thread's step.
#pragma once

namespace Qen {

// Use:  Waiter waiter(interval, limit);
//       while (!condition) { if (!waiter.Pause()) { overtime } }
// The first pauses only spin: most steps that a thread waits for are a few instructions away, and a sleep of 5
// microseconds lasts ten times that under the usual timer slack. After that each pause yields or sleeps
// `intervalUs`; Pause answers false once `maxSleeps` sleeps have been spent.
class Waiter {
 public:
  Waiter(unsigned intervalUs, unsigned long long maxSleeps) noexcept
      : m_intervalUs(intervalUs), m_maxSleeps(maxSleeps) {}
  bool Pause() noexcept;

 private:
  unsigned m_intervalUs;
  unsigned m_spins = 0;
  unsigned long long m_sleeps = 0;
  unsigned long long m_maxSleeps;
};

}  // namespace Qen
