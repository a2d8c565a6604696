// Memory of calls, kept for the next one: fresh memory costs a call more than its work on it, as the system has to find
// and clear each page.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>

#include "platform/atomic.h"

namespace Qen {

// An array that grows, and never shrinks. What is in it after Take is undefined.
template <class T>
class Reused {
  static_assert(std::is_trivially_default_constructible_v<T> && std::is_trivially_destructible_v<T>);

 public:
  // Throws std::bad_alloc.
  std::span<T> Take(std::size_t count) {
    if (count > m_capacity) {
      const std::size_t capacity = count + count / 8;  // batches are about the same size
      m_memory.reset();
      m_capacity = 0;
      m_memory = std::make_unique_for_overwrite<T[]>(capacity);
      m_capacity = capacity;
    }
    return {m_memory.get(), count};
  }

 private:
  std::unique_ptr<T[]> m_memory;
  std::size_t m_capacity = 0;
};

// Spare objects, each used by one call at a time. Without a lock, which a child of fork could find taken for good.
template <class T>
class Spares {
 public:
  Spares() = default;
  Spares(const Spares&) = delete;
  Spares& operator=(const Spares&) = delete;
  ~Spares() {
    for (Atomic<T*>& spare : m_spares) {
      delete spare.load(std::memory_order_relaxed);  // no call is at work
    }
  }

  // One of them, or a new one, for as long as this lives.
  class Lent {
   public:
    // Throws what T's constructor throws.
    explicit Lent(Spares& spares) : m_spares(spares), m_object(spares.Take()) {}
    Lent(const Lent&) = delete;
    Lent& operator=(const Lent&) = delete;
    ~Lent() { m_spares.PutBack(std::move(m_object)); }
    T& operator*() const noexcept { return *m_object; }

   private:
    Spares& m_spares;
    std::unique_ptr<T> m_object;
  };

 private:
  std::unique_ptr<T> Take() {
    for (Atomic<T*>& spare : m_spares) {
      // Acquire: sees what the call that put it back has left in it.
      if (T* const taken = spare.exchange(nullptr, std::memory_order_acquire)) {
        return std::unique_ptr<T>(taken);
      }
    }
    return std::make_unique<T>();
  }

  void PutBack(std::unique_ptr<T> used) noexcept {
    for (Atomic<T*>& spare : m_spares) {
      T* none = nullptr;
      // Release: for Take.
      if (spare.compare_exchange_strong(none, used.get(), std::memory_order_release, std::memory_order_relaxed)) {
        static_cast<void>(used.release());
        return;
      }
    }
  }

  std::array<Atomic<T*>, 8> m_spares{};  // more calls at once than that go without
};

}  // namespace Qen
