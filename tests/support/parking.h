// Parks a thread of a race at a named point of the library until the test lets it go on. Testing build only.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/test_hooks.h"

namespace KavoTest {

struct ParkingSlot {
  std::atomic<const char*> point{nullptr};
  unsigned nth = 0;
  std::atomic<unsigned> passages{0};
  std::atomic<bool> parked{false};
  std::atomic<bool> released{false};
};

// Parks the n-th passage through `point`; all others go through. At most four may live at once. Make and destroy them
// while no thread runs towards the point; a parked thread is let go by the destructor. No wait is for ever: one that
// lasts for a minute fails the test and goes on.
class Parking {
 public:
  static constexpr unsigned NEVER = ~0U;  // no passage is the so-many-th: they are only counted

  // `point` must outlive the object: a literal.
  explicit Parking(const char* point, unsigned nth = 1) {
    while (m_slot->point.load() != nullptr) {
      ++m_slot;
    }
    m_slot->nth = nth;
    m_slot->passages = 0;
    m_slot->released = false;
    m_slot->point = point;
    Qen::TestHooks::SetPointHandler(&Parking::Handle);
  }
  Parking(const Parking&) = delete;
  Parking& operator=(const Parking&) = delete;
  ~Parking() {
    Release();
    EXPECT_TRUE(Await([this] { return !m_slot->parked; }));
    m_slot->point = nullptr;
  }

  // False, and a failed test, when nobody came.
  bool WaitUntilParked() {
    const bool parked = Await([this] { return m_slot->parked.load(); });
    EXPECT_TRUE(parked) << "no thread was parked at " << m_slot->point;
    return parked;
  }

  // Lets the parked thread go on; one that has not come yet will not be parked.
  void Release() { m_slot->released = true; }

  unsigned Passages() const { return m_slot->passages; }

  template <class Condition>
  static bool Await(const Condition& isMet) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!isMet() && std::chrono::steady_clock::now() < giveUp) {
      std::this_thread::yield();
    }
    return isMet();
  }

 private:
  static void Handle(const char* point) {
    // All parkings of this point count the passage before one of them stops it. Relaxed: who is not stopped is not to
    // be ordered by the test.
    ParkingSlot* stop = nullptr;
    for (ParkingSlot& slot : s_slots) {
      const char* const name = slot.point.load(std::memory_order_relaxed);
      if (name != nullptr && std::strcmp(name, point) == 0 &&
          slot.passages.fetch_add(1, std::memory_order_relaxed) + 1 == slot.nth && !slot.released) {
        stop = &slot;
      }
    }
    if (stop != nullptr) {
      stop->parked = true;
      EXPECT_TRUE(Await([stop] { return stop->released.load(); })) << "nobody released the thread at " << point;
      stop->parked = false;
    }
  }

  static inline std::array<ParkingSlot, 4> s_slots;
  ParkingSlot* m_slot = s_slots.data();
};

}  // namespace KavoTest
