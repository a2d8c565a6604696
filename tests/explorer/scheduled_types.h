// The atomics and locks of a build with KAVO_EXPLORER: plain objects whose every operation is a step (scheduler.h).
// Memory orders are taken and ignored.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "explorer/scheduler.h"

namespace KavoExplorer {

template <class T>
std::uint64_t ToBits(const T& value) noexcept {
  if constexpr (std::is_pointer_v<T>) {
    return reinterpret_cast<std::uintptr_t>(value);
  } else {
    return static_cast<std::uint64_t>(value);
  }
}

// `change` runs with nobody between it and the reading before.
template <class T, class Change>
T TakeStep(Op op, T& value, const Change& change) noexcept {
  const bool scheduled = BeginStep(op, &value);
  const T before = value;
  change(before);
  if (scheduled) {
    EndStep(ToBits(before), ToBits(value));
  }
  return before;
}

// The operations, on a value that the derived class holds or refers to.
template <class Derived, class T>
class AtomicOperations {
 public:
  using value_type = T;
  static constexpr bool is_always_lock_free = true;
  using Order = std::memory_order;

  T load(Order = std::memory_order_seq_cst) const noexcept {
    return TakeStep(Op::LOAD, Value(), [](T) {});
  }
  void store(T desired, Order = std::memory_order_seq_cst) const noexcept {
    TakeStep(Op::STORE, Value(), [&](T) { Value() = desired; });
  }
  T exchange(T desired, Order = std::memory_order_seq_cst) const noexcept {
    return TakeStep(Op::UPDATE, Value(), [&](T) { Value() = desired; });
  }
  bool compare_exchange_strong(T& expected, T desired, Order = std::memory_order_seq_cst,
                               Order = std::memory_order_seq_cst) const noexcept {
    bool same = false;
    const T before = TakeStep(Op::UPDATE, Value(), [&](T found) {
      same = found == expected;
      if (same) {
        Value() = desired;
      }
    });
    if (!same) {
      expected = before;
    }
    return same;
  }
  bool compare_exchange_weak(T& expected, T desired, Order success = std::memory_order_seq_cst,
                             Order failure = std::memory_order_seq_cst) const noexcept {
    return compare_exchange_strong(expected, desired, success, failure);
  }
  T fetch_add(T operand, Order = std::memory_order_seq_cst) const noexcept {
    return TakeStep(Op::UPDATE, Value(), [&](T found) { Value() = static_cast<T>(found + operand); });
  }
  T fetch_sub(T operand, Order = std::memory_order_seq_cst) const noexcept {
    return TakeStep(Op::UPDATE, Value(), [&](T found) { Value() = static_cast<T>(found - operand); });
  }
  T fetch_or(T operand, Order = std::memory_order_seq_cst) const noexcept {
    return TakeStep(Op::UPDATE, Value(), [&](T found) { Value() = static_cast<T>(found | operand); });
  }
  T fetch_and(T operand, Order = std::memory_order_seq_cst) const noexcept {
    return TakeStep(Op::UPDATE, Value(), [&](T found) { Value() = static_cast<T>(found & operand); });
  }

 private:
  T& Value() const noexcept { return static_cast<const Derived*>(this)->m_value; }
};

template <class T>
class Atomic : public AtomicOperations<Atomic<T>, T> {
 public:
  constexpr Atomic() noexcept = default;
  constexpr Atomic(T value) noexcept : m_value(value) {}
  Atomic(const Atomic&) = delete;
  Atomic& operator=(const Atomic&) = delete;

 private:
  friend class AtomicOperations<Atomic<T>, T>;
  mutable T m_value{};
};

template <class T>
class AtomicRef : public AtomicOperations<AtomicRef<T>, T> {
 public:
  static constexpr std::size_t required_alignment = alignof(T);
  explicit AtomicRef(T& value) noexcept : m_value(value) {}

 private:
  friend class AtomicOperations<AtomicRef<T>, T>;
  T& m_value;
};

class SharedMutex {
 public:
  constexpr SharedMutex() noexcept = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void lock() {
    Take(Op::LOCK, [this] { m_state.writer = true; });
  }
  bool try_lock() {
    bool taken = false;
    Take(Op::TRY_LOCK, [&] {
      taken = !m_state.writer && m_state.readers == 0;
      m_state.writer = m_state.writer || taken;
    });
    return taken;
  }
  void unlock() {
    Take(Op::UNLOCK, [this] { m_state.writer = false; });
  }
  void lock_shared() {
    Take(Op::LOCK_SHARED, [this] { ++m_state.readers; });
  }
  void unlock_shared() {
    Take(Op::UNLOCK_SHARED, [this] { --m_state.readers; });
  }

 private:
  template <class Change>
  void Take(Op op, const Change& change) {
    const bool scheduled = BeginStep(op, this, &m_state);
    change();
    if (scheduled) {
      EndStep(0, 1);
    }
  }

  LockState m_state;
};

class Mutex : public SharedMutex {
 private:
  using SharedMutex::lock_shared;
  using SharedMutex::unlock_shared;
};

}  // namespace KavoExplorer
