// The numbers of steps, and which calls are at work.
//
// A backward call takes the next number. A call that writes rows without a step (a new row's start, a row that is set)
// holds the number of the step that is to come. What a call writes bears the number that it holds.
//
// The CUT of a save is the lowest number held by a call that is at work when the save begins, or else the number of the
// step to come. So every write that a save might miss bears a number of its cut or above: a call that was at work held
// one, and a call that began later got the number to come or a later one. The next increment takes all rows whose
// number is the cut or above.
//
// Calls are batches: a lock for a moment at both ends costs nothing beside them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <mutex>

#include "kavo_embedding.h"
#include "platform/mutex.h"

namespace Qen {

class StepClock {
 public:
  StepClock(const KavoRates& rates, std::uint64_t steps) : m_rates(rates), m_last(steps) {}
  StepClock(const StepClock&) = delete;
  StepClock& operator=(const StepClock&) = delete;

  // A call at work, from construction to destruction.
  class Call {
   public:
    enum class Kind { STEP, WRITE };
    Call(StepClock& clock, Kind kind) : m_clock(clock) {
      const std::lock_guard lock(clock.m_mutex);
      m_number = clock.m_last + 1;
      m_rates = clock.m_rates;
      if (kind == Kind::STEP) {
        clock.m_last = m_number;
      }
      m_next = clock.m_atWork;
      if (m_next != nullptr) {
        m_next->m_previous = this;
      }
      clock.m_atWork = this;
    }
    ~Call() {
      const std::lock_guard lock(m_clock.m_mutex);
      (m_previous != nullptr ? m_previous->m_next : m_clock.m_atWork) = m_next;
      if (m_next != nullptr) {
        m_next->m_previous = m_previous;
      }
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    std::uint64_t Number() const noexcept { return m_number; }
    const KavoRates& Rates() const noexcept { return m_rates; }

   private:
    friend class StepClock;
    StepClock& m_clock;
    std::uint64_t m_number;
    KavoRates m_rates;
    // The list of calls at work; under the clock's lock.
    Call* m_next = nullptr;
    Call* m_previous = nullptr;
  };

  std::uint64_t Cut() const {
    const std::lock_guard lock(m_mutex);
    std::uint64_t cut = m_last + 1;
    for (const Call* call = m_atWork; call != nullptr; call = call->m_next) {
      cut = call->m_number < cut ? call->m_number : cut;
    }
    return cut;
  }

  std::uint64_t Steps() const {
    const std::lock_guard lock(m_mutex);
    return m_last;
  }
  // Of a snapshot that was loaded or followed: the next step is a later one. Never goes back, so that no two calls at
  // work get one number.
  void PassSteps(std::uint64_t steps) {
    const std::lock_guard lock(m_mutex);
    m_last = std::max(m_last, steps);
  }
  KavoRates Rates() const {
    const std::lock_guard lock(m_mutex);
    return m_rates;
  }
  void SetRates(const KavoRates& rates) {
    const std::lock_guard lock(m_mutex);
    m_rates = rates;
  }

 private:
  mutable Mutex m_mutex;  // guards the rest
  KavoRates m_rates;
  std::uint64_t m_last;
  Call* m_atWork = nullptr;
};

}  // namespace Qen
