// memcpy_s with the semantics of C11 Annex K. Internal linkage: a host's own function of that name never meets ours.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Qen {

// The largest size that is accepted.
inline constexpr std::size_t RSIZE_LIMIT = SIZE_MAX >> 1;

// Copies `count` bytes. 0 on success. EINVAL for a null pointer or a size above RSIZE_LIMIT, ERANGE when `count`
// exceeds `destMax` or the two ranges overlap; on failure the destination, where it is valid, is zeroed. A range
// copied onto itself is the one overlap allowed: it succeeds and changes nothing, so that bytes may be handed back at
// the very address where they were found.
static inline int memcpy_s(void* dest, std::size_t destMax, const void* src, std::size_t count) noexcept {
  if (dest == nullptr || destMax > RSIZE_LIMIT) {
    return EINVAL;
  }
  if (src == nullptr || count > RSIZE_LIMIT) {
    std::memset(dest, 0, destMax);
    return EINVAL;
  }
  if (count > destMax) {
    std::memset(dest, 0, destMax);
    return ERANGE;
  }
  if (dest == src || count == 0) {
    return 0;
  }
  const auto to = reinterpret_cast<std::uintptr_t>(dest);
  const auto from = reinterpret_cast<std::uintptr_t>(src);
  if (to < from ? from - to < count : to - from < count) {
    std::memset(dest, 0, destMax);
    return ERANGE;
  }
  std::memcpy(dest, src, count);
  return 0;
}

}  // namespace Qen
