#include "snapshot/checksum.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Qen {

struct RunningChecksum::State {
  XXH3_state_t state;
};

std::uint64_t Checksum(Bytes bytes) noexcept {
  return XXH3_64bits(bytes.data(), bytes.size());
}

RunningChecksum::RunningChecksum() : m_state(std::make_unique<State>()) {
  XXH3_64bits_reset(&m_state->state);
}

RunningChecksum::~RunningChecksum() = default;

void RunningChecksum::Add(Bytes bytes) noexcept {
  XXH3_64bits_update(&m_state->state, bytes.data(), bytes.size());
}

std::uint64_t RunningChecksum::Value() const noexcept {
  return XXH3_64bits_digest(&m_state->state);
}

}  // namespace Qen
