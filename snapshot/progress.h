// Tells a caller how far its call is, in bytes, one call of the caller's function at a time.
#pragma once

#include <cstdint>
#include <mutex>

#include "kavo_embedding.h"
#include "platform/mutex.h"
#include "snapshot/failure.h"

namespace Qen {

class Progress {
 public:
  Progress(KavoProgress call, void* context) noexcept : m_call(call), m_context(context) {}

  void Expect(std::uint64_t bytes) {
    const std::lock_guard lock(m_mutex);
    m_total += bytes;
  }
  // Throws a Failure when the caller ends its call. Any thread.
  void Add(std::uint64_t bytes) {
    if (m_call == nullptr || bytes == 0) {
      return;
    }
    const std::lock_guard lock(m_mutex);
    m_done += bytes;
    m_total = m_done > m_total ? m_done : m_total;  // what was expected is a guess at times
    // Other threads may still come when it has ended the call.
    m_hasEnded = m_hasEnded || m_call(m_context, m_done, m_total) != 0;
    if (m_hasEnded) {
      throw Failure(KAVO_FAILED, "progress has ended the call");
    }
  }

 private:
  KavoProgress m_call;
  void* m_context;
  Mutex m_mutex;  // guards the rest, and the caller's function
  std::uint64_t m_done = 0;
  std::uint64_t m_total = 0;
  bool m_hasEnded = false;
};

}  // namespace Qen
