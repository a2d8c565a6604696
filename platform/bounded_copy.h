// memcpy_s and memset_s with the semantics of C11 Annex K. Internal linkage: a host's own functions of these names
// never meet ours.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Qen {

// The largest size either function accepts; every value length is far below it.
inline constexpr std::size_t RSIZE_LIMIT = SIZE_MAX >> 1;

// Copies `count` bytes. 0 on success. EINVAL for a null pointer or a size above RSIZE_LIMIT, ERANGE when `count`
// exceeds `destMax` or the two ranges overlap; on failure the destination, where it is valid, is zeroed. A range
// copied onto itself is the one overlap allowed: it succeeds and changes nothing, because a caller may hand an
// update the very address that a lookup gave it.
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

// Sets `count` bytes to `value`. 0 on success. EINVAL for a null pointer or a size above RSIZE_LIMIT, ERANGE when
// `count` exceeds `destMax`; then the whole destination, where it is valid, is set all the same.
static inline int memset_s(void* dest, std::size_t destMax, int value, std::size_t count) noexcept {
  if (dest == nullptr || destMax > RSIZE_LIMIT) {
    return EINVAL;
  }
  if (count > RSIZE_LIMIT) {
    std::memset(dest, value, destMax);
    return EINVAL;
  }
  if (count > destMax) {
    std::memset(dest, value, destMax);
    return ERANGE;
  }
  std::memset(dest, value, count);
  return 0;
}

}  // namespace Qen
