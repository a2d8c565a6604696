// How the bytes of a block are stored.
#pragma once

#include <vector>

#include "snapshot/bytes.h"

namespace Qen {

enum class Codec : std::uint32_t { RAW = 0, ZSTD = 1 };

// Whether this build can compress.
bool HasCompression() noexcept;

// At level 1 to 19. False when it would not get smaller.
bool Compress(Bytes raw, int level, std::vector<unsigned char>& stored);
// Exactly `to`; false when that is not what was stored.
bool Decompress(Bytes stored, std::span<unsigned char> to) noexcept;

}  // namespace Qen
