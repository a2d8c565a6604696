// Keeping what many threads write off the lines that many threads read.
#pragma once

#include <cstddef>

namespace Qen {

inline constexpr std::size_t CACHE_LINE_BYTES = 64;

// Between two members of a class whose alignment is the heap's: one line apart wherever the object begins.
struct CacheLinePadding {
  char bytes[CACHE_LINE_BYTES];
};

}  // namespace Qen
