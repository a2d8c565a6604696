// What the core needs to know of a key, and a table of what a value record points to.
#pragma once

#include <cstdint>

namespace Qen {

struct KTraits {
  // The bits that choose a key's bucket; keys are not mixed further.
  static std::uint32_t BucketBits(long key) noexcept { return static_cast<std::uint32_t>(key); }
};

struct VTraits {
  static unsigned char* Block(unsigned char& block) noexcept { return &block; }
};

}  // namespace Qen
