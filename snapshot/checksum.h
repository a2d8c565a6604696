// XXH3 of 64 bits, seed 0.
#pragma once

#include <memory>

#include "snapshot/bytes.h"

namespace Qen {

std::uint64_t Checksum(Bytes bytes) noexcept;

// Of bytes that come one after the other.
class RunningChecksum {
 public:
  RunningChecksum();
  RunningChecksum(const RunningChecksum&) = delete;
  RunningChecksum& operator=(const RunningChecksum&) = delete;
  ~RunningChecksum();
  void Add(Bytes bytes) noexcept;
  std::uint64_t Value() const noexcept;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace Qen
