// What a call's bytes and length stand for.
#pragma once

#include <limits>

#include "model/call.h"
#include "model/export_walk.h"

namespace KavoTest {

inline Bytes ValueFor(unsigned char seed, long key, unsigned length) {
  Bytes bytes(length);
  for (unsigned i = 0; i < length; ++i) {
    bytes[i] = static_cast<unsigned char>(seed + static_cast<unsigned long>(key) * 31 + i * 7);
  }
  return bytes;
}

inline unsigned LengthOf(const Call& call, unsigned right) {
  switch (call.length) {
    case Length::ONE_LESS:
      return right - 1;
    case Length::ONE_MORE:
      return right + 1;
    case Length::ZERO:
      return 0;
    case Length::HUGE_LENGTH:
      return std::numeric_limits<unsigned>::max();
    default:
      return right;
  }
}

}  // namespace KavoTest
