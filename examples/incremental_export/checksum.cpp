#include "incremental_export/checksum.h"

#include <xxhash.h>

#include <new>

namespace IncrementalExport {

void Checksum::Free::operator()(XXH3_state_s* state) const {
  XXH3_freeState(state);
}

Checksum::Checksum() : m_state(XXH3_createState()) {
  if (m_state == nullptr) {
    throw std::bad_alloc();
  }
  Reset();
}

void Checksum::Reset() {
  XXH3_64bits_reset(m_state.get());
}

void Checksum::Add(const unsigned char* bytes, std::size_t count) {
  XXH3_64bits_update(m_state.get(), bytes, count);
}

std::uint64_t Checksum::Value() const {
  return XXH3_64bits_digest(m_state.get());
}

std::uint64_t Checksum::Of(const unsigned char* bytes, std::size_t count) {
  return XXH3_64bits(bytes, count);
}

}  // namespace IncrementalExport
