// Runs a step when the scope is left, by whatever way, unless it was dismissed.
#pragma once

#include <utility>

namespace Qen {

template <class Step>
class OnExit {
 public:
  explicit OnExit(Step step) noexcept : m_step(std::move(step)) {}
  ~OnExit() {
    if (m_armed) {
      m_step();
    }
  }
  OnExit(const OnExit&) = delete;
  OnExit& operator=(const OnExit&) = delete;
  void Dismiss() noexcept { m_armed = false; }

 private:
  Step m_step;
  bool m_armed = true;
};

}  // namespace Qen
