// Every field that two threads may touch is declared through these aliases, so that a test build can put a
// scheduler under each access. In production they are the standard types themselves.
#pragma once

#include <atomic>

#ifdef KAVO_EXPLORER
#include "explorer/scheduled_types.h"
#endif

namespace Qen {

#ifdef KAVO_EXPLORER
template <class T>
using Atomic = KavoExplorer::Atomic<T>;
template <class T>
using AtomicRef = KavoExplorer::AtomicRef<T>;
#else
template <class T>
using Atomic = std::atomic<T>;

// For words that live in raw memory, such as a block's value header.
template <class T>
using AtomicRef = std::atomic_ref<T>;
#endif

}  // namespace Qen
