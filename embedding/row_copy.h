// Floats of rows, where readers and a writer may meet: copied out whole, and changed in place.
//
// A writer makes the head even, changes the floats, and makes it odd again; a reader copies the floats between two
// readings of the head, and copies again if the head has changed (R2 of row_head.h). Readers write nothing.
//
// The floats of a row are plain memory to the processor's widest loads. To the language that is a race, although what
// was read beside a write is thrown away; so where somebody looks for races (ThreadSanitizer), or wants to put a step
// between two floats (the explorer), each float is an atomic of its own. Measured, 64-bit relaxed atomics everywhere
// cost 14 to 48 % of a lookup; plain copies between fences nothing that could be seen.
#pragma once

#include <cstddef>
#include <cstring>

#include "embedding/row_head.h"
#include "platform/atomic.h"

#if defined(KAVO_EXPLORER) || defined(__SANITIZE_THREAD__)
#define KAVO_ATOMIC_FLOATS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KAVO_ATOMIC_FLOATS 1
#endif
#endif

namespace Qen {

#ifdef KAVO_ATOMIC_FLOATS

inline void LoadFloats(const float* from, float* to, std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    // Acquire: the head's second reading comes after; and whoever sees a float of a write finds the head even by then.
    const std::uint32_t bits = AtomicRef<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(const_cast<float*>(from + i)))
                                   .load(std::memory_order_acquire);
    std::memcpy(to + i, &bits, sizeof(bits));
  }
}

inline void StoreFloats(const float* from, float* to, std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, from + i, sizeof(bits));
    // Release: passes on that the head is even.
    AtomicRef<std::uint32_t>(*reinterpret_cast<std::uint32_t*>(to + i)).store(bits, std::memory_order_release);
  }
}

// Nobody else writes: the caller has the head.
inline void FenceBeforeFloats() noexcept {}
inline RowHead::Word SecondReading(const RowHead& head) noexcept {
  return head.Load();
}

#else

// In pieces of a length that the compiler knows: most rows are too short to pay for a call.
inline void LoadFloats(const float* from, float* to, std::size_t count) noexcept {
  constexpr std::size_t PIECE = 16;
  std::size_t at = 0;
  for (; at + PIECE <= count; at += PIECE) {
    std::memcpy(to + at, from + at, PIECE * sizeof(float));
  }
  if (at < count) {
    std::memcpy(to + at, from + at, (count - at) * sizeof(float));
  }
}
inline void StoreFloats(const float* from, float* to, std::size_t count) noexcept {
  std::memcpy(to, from, count * sizeof(float));
}

// Release: keeps the stores of floats behind the head's turning even, for whoever reads them (SecondReading).
inline void FenceBeforeFloats() noexcept {
  std::atomic_thread_fence(std::memory_order_release);
}
// Acquire: keeps the loads of floats before the second reading.
inline RowHead::Word SecondReading(const RowHead& head) noexcept {
  std::atomic_thread_fence(std::memory_order_acquire);
  return head.LoadAgain();
}

#endif

}  // namespace Qen
