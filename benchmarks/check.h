// A benchmark that did not do what it says measures nothing: it ends the program.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace Bench {

inline void Check(bool holds, const char* what) {
  if (!holds) [[unlikely]] {
    std::fprintf(stderr, "benchmark stopped, does not hold: %s\n", what);
    std::exit(1);
  }
}

}  // namespace Bench
