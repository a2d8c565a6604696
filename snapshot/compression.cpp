#include "snapshot/compression.h"

#ifdef KAVO_ZSTD
#include <zstd.h>
#endif

namespace Qen {

#ifdef KAVO_ZSTD

bool HasCompression() noexcept {
  return true;
}

bool Compress(Bytes raw, int level, std::vector<unsigned char>& stored) {
  stored.resize(ZSTD_compressBound(raw.size()));
  const std::size_t bytes = ZSTD_compress(stored.data(), stored.size(), raw.data(), raw.size(), level);
  if (ZSTD_isError(bytes) != 0) {
    throw std::bad_alloc();  // there is room for any result
  }
  stored.resize(bytes);
  return bytes < raw.size();
}

bool Decompress(Bytes stored, std::span<unsigned char> to) noexcept {
  return ZSTD_decompress(to.data(), to.size(), stored.data(), stored.size()) == to.size();
}

#else

bool HasCompression() noexcept {
  return false;
}

bool Compress(Bytes, int, std::vector<unsigned char>&) {
  return false;
}

bool Decompress(Bytes, std::span<unsigned char>) noexcept {
  return false;
}

#endif

}  // namespace Qen
