// The threads that work on a save or a load are given to this layer: a function that deals pieces out.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>

#include "platform/atomic.h"
#include "platform/mutex.h"

namespace Qen {

struct Workers {
  // Calls piece(i) for i from 0 to pieces - 1, each once, on any threads; returns when all are done.
  using Deal = std::function<void(std::size_t pieces, const std::function<void(std::size_t)>& piece)>;

  unsigned threads = 1;
  Deal deal = [](std::size_t pieces, const std::function<void(std::size_t)>& piece) {
    for (std::size_t i = 0; i < pieces; ++i) {
      piece(i);
    }
  };

  // The same; throws what a piece throws first, and leaves out those that have not begun by then.
  void Run(std::size_t pieces, const std::function<void(std::size_t)>& piece) const {
    Mutex mutex;
    std::exception_ptr first;
    Atomic<bool> failed{false};
    deal(pieces, [&](std::size_t i) {
      if (failed.load(std::memory_order_relaxed)) {  // a hint
        return;
      }
      try {
        piece(i);
      } catch (...) {
        const std::lock_guard lock(mutex);
        if (first == nullptr) {
          first = std::current_exception();
        }
        failed.store(true, std::memory_order_relaxed);
      }
    });
    if (first != nullptr) {
      std::rethrow_exception(first);
    }
  }
};

}  // namespace Qen
