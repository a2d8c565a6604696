// Asks the processor to bring a cache line closer. Any address is allowed, null included.
#pragma once

namespace Qen {

inline void PrefetchForRead(const void* address) noexcept {
  __builtin_prefetch(address, 0, 3);
}

}  // namespace Qen
