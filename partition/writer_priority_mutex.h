// A reader-writer lock under which writers get their turn. The platform's own prefers readers: a writer waits for as
// long as their holds overlap, which under constant queries is for ever.
//
// Contract
//  - Used like std::shared_mutex, through std::lock_guard and std::shared_lock. Exclusion is that of `m_lock` alone;
//    the gate only decides who may ask for it.
//  - A writer waits for the readers that hold the lock, and for those that were past the gate when it announced
//    itself: one acquisition a thread at most. Readers that come later wait until it is done.
//  - A reader waits for two writers at most, even if writers follow each other without a pause: one at the gate, and
//    one at `m_lock` that came through the gate after it. Both locks let waiting readers in when a writer leaves.
//  - Not recursive, not even for readers: a second acquisition could wait for a writer that waits for the first. Where
//    the platform reports a self-deadlock, std::system_error is thrown and nothing has changed.
//
// A reader's acquisition costs one load more than m_lock's, unless a writer is there.
//
//   m_announced  m_gate      m_lock      a writer is ...
//   false        free        -           not there
//   true         exclusive   -           waiting for the readers inside
//   true         exclusive   exclusive   inside
#pragma once

#include <mutex>
#include <shared_mutex>

#include "platform/atomic.h"
#include "platform/mutex.h"
#include "platform/test_hooks.h"

namespace Qen {

class WriterPriorityMutex {
 public:
  WriterPriorityMutex() = default;
  WriterPriorityMutex(const WriterPriorityMutex&) = delete;
  WriterPriorityMutex& operator=(const WriterPriorityMutex&) = delete;

  // The names that the standard guards call.
  void lock() {
    std::unique_lock gate(m_gate);
    Announcement announcement(m_announced);
    KAVO_TEST_POINT("WriterPriorityMutex.announced");
    m_lock.lock();
    announcement.Keep();
    static_cast<void>(gate.release());
  }

  void unlock() {
    m_lock.unlock();
    // Before the gate opens: readers look at the gate only while a writer has it, so those who contend for it with the
    // next writer are few and get no more. Relaxed: see lock_shared.
    m_announced.store(false, std::memory_order_relaxed);
    m_gate.unlock();
  }

  void lock_shared() {
    // Relaxed: a hint that orders nothing. Whoever misses a new announcement meets m_lock all the same.
    if (m_announced.load(std::memory_order_relaxed)) [[unlikely]] {
      WaitAtGate();
    }
    m_lock.lock_shared();
  }

  void unlock_shared() { m_lock.unlock_shared(); }

 private:
  // Withdrawn if the lock reports an error.
  class Announcement {
   public:
    // Relaxed, here and below: see lock_shared.
    explicit Announcement(Atomic<bool>& announced) noexcept : m_announced(&announced) {
      m_announced->store(true, std::memory_order_relaxed);
    }
    Announcement(const Announcement&) = delete;
    Announcement& operator=(const Announcement&) = delete;
    ~Announcement() {
      if (m_announced != nullptr) {
        m_announced->store(false, std::memory_order_relaxed);
      }
    }
    void Keep() noexcept { m_announced = nullptr; }

   private:
    Atomic<bool>* m_announced;
  };

  [[gnu::noinline]] void WaitAtGate() {
    KAVO_TEST_POINT("WriterPriorityMutex.gate");
    const std::shared_lock gate(m_gate);
  }

  SharedMutex m_lock;
  Atomic<bool> m_announced{false};  // written by whoever holds the gate exclusively
  SharedMutex m_gate;               // held by a writer from its announcement until it is done
};

}  // namespace Qen
