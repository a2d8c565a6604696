// Parks a thread of a race at a named point of the library until the test lets it go on. Testing build only.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <iterator>
#include <mutex>

#include "platform/test_hooks.h"

namespace KavoTest {

// Parks the n-th passage through `point`; all others go through. Several may live at once. Make and destroy them while
// no thread runs towards the point; a parked thread is let go by the destructor. No wait is for ever: one that lasts
// longer than PATIENCE fails the test and goes on.
class Parking {
 public:
  static constexpr std::chrono::seconds PATIENCE{60};

  // `point` must outlive the object: a literal.
  explicit Parking(const char* point, unsigned nth = 1) {
    Shared& shared = TheShared();
    const std::lock_guard<std::mutex> lock(shared.mutex);
    for (Slot& slot : shared.slots) {
      if (slot.point.load() == nullptr) {
        m_slot = &slot;
        slot.nth = nth;
        slot.passages = 0;
        slot.parked = false;
        slot.released = false;
        slot.point.store(point);
        Qen::TestHooks::SetPointHandler(&Parking::Handle);
        return;
      }
    }
    ADD_FAILURE() << "too many parkings at once";
  }
  Parking(const Parking&) = delete;
  Parking& operator=(const Parking&) = delete;
  ~Parking() {
    if (m_slot == nullptr) {
      return;
    }
    Shared& shared = TheShared();
    std::unique_lock<std::mutex> lock(shared.mutex);
    m_slot->released = true;
    shared.changed.notify_all();
    EXPECT_TRUE(shared.changed.wait_for(lock, PATIENCE, [this] { return m_slot->inside == 0; }));
    m_slot->point.store(nullptr);
    for (const Slot& slot : shared.slots) {
      if (slot.point.load() != nullptr) {
        return;
      }
    }
    Qen::TestHooks::SetPointHandler(nullptr);
  }

  // Waits until the thread is parked. False, and a failed test, when nobody came.
  bool WaitUntilParked() {
    std::unique_lock<std::mutex> lock(TheShared().mutex);
    const bool parked = TheShared().changed.wait_for(lock, PATIENCE, [this] { return m_slot->parked; });
    EXPECT_TRUE(parked) << "no thread was parked at " << m_slot->point.load();
    return parked;
  }

  // Lets the parked thread go on; one that has not come yet will not be parked.
  void Release() {
    const std::lock_guard<std::mutex> lock(TheShared().mutex);
    m_slot->released = true;
    TheShared().changed.notify_all();
  }

  unsigned Passages() const {
    const std::lock_guard<std::mutex> lock(TheShared().mutex);
    return m_slot->passages;
  }

 private:
  struct Slot {
    std::atomic<const char*> point{nullptr};
    // The rest under the mutex.
    unsigned nth = 0;
    unsigned passages = 0;
    unsigned inside = 0;
    bool parked = false;
    bool released = false;
  };
  struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    Slot slots[8];
  };

  static Shared& TheShared() {
    static Shared shared;
    return shared;
  }

  static bool IsAt(const Slot& slot, const char* point) {
    const char* const name = slot.point.load();
    return name != nullptr && std::strcmp(name, point) == 0;
  }

  static void Handle(const char* point) {
    Shared& shared = TheShared();
    // Other points go by without the lock, so that they are not ordered by it.
    if (std::none_of(std::begin(shared.slots), std::end(shared.slots),
                     [point](const Slot& slot) { return IsAt(slot, point); })) {
      return;
    }
    std::unique_lock<std::mutex> lock(shared.mutex);
    // All parkings of this point count the passage before one of them stops it.
    Slot* stop = nullptr;
    for (Slot& slot : shared.slots) {
      if (IsAt(slot, point) && ++slot.passages == slot.nth && !slot.released) {
        stop = &slot;
      }
    }
    if (stop != nullptr) {
      stop->parked = true;
      ++stop->inside;
      shared.changed.notify_all();
      EXPECT_TRUE(shared.changed.wait_for(lock, PATIENCE, [stop] { return stop->released; }))
          << "nobody released the thread parked at " << point;
      --stop->inside;
      shared.changed.notify_all();
    }
  }

  Slot* m_slot = nullptr;
};

}  // namespace KavoTest
