// The value header: the word in front of an entry's value bytes that says in which exports the entry is due.
//
//   block            block + 4
//   | header, 4 bytes | value bytes ... |
//
// Callers of the library see only the address behind the header.
//
// Header accesses are relaxed atomics: a lookup for update, an update and an export may touch one entry's header at
// once, and nothing else is read on the strength of its value.
#pragma once

#include "memory/block_layout.h"
#include "platform/atomic.h"

namespace Qen {

inline constexpr unsigned VALUE_HEADER_BYTES = BLOCK_HEADER_BYTES;
static_assert(VALUE_HEADER_BYTES == sizeof(unsigned));

namespace ValueHeader {

inline constexpr unsigned CHANGED = 0;           // changed since the last marking export; the state of a fresh block
inline constexpr unsigned EXPORTED = 1;          // exported, not changed since
inline constexpr unsigned ONLY_FULL_EXPORT = 2;  // left out by every export that selects
// Any other number is stored as the caller gave it and takes part in full exports only.

inline unsigned Load(unsigned char* block) noexcept {
  return AtomicRef<unsigned>(*reinterpret_cast<unsigned*>(block)).load(std::memory_order_relaxed);
}

inline void Store(unsigned char* block, unsigned state) noexcept {
  AtomicRef<unsigned>(*reinterpret_cast<unsigned*>(block)).store(state, std::memory_order_relaxed);
}

// An insert's state argument names the first and the last state the other way round.
inline constexpr unsigned FromInsertState(unsigned state) noexcept {
  switch (state) {
    case ONLY_FULL_EXPORT:
      return CHANGED;
    case CHANGED:
      return ONLY_FULL_EXPORT;
    default:
      return state;
  }
}

}  // namespace ValueHeader

inline unsigned char* ValueBytes(unsigned char* block) noexcept {
  return block + VALUE_HEADER_BYTES;
}

}  // namespace Qen
