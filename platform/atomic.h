// Every field that two threads may touch is declared through these aliases, so that a test build can put a
// scheduler under each access. In production they are the standard types themselves.
#pragma once

#include <atomic>

namespace Qen {

template <class T>
using Atomic = std::atomic<T>;

// For words that live in raw memory, such as a block's value header.
template <class T>
using AtomicRef = std::atomic_ref<T>;

}  // namespace Qen
