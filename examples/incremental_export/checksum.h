// XXH3, 64 bits, seed 0, over bytes that come in pieces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct XXH3_state_s;

namespace IncrementalExport {

class Checksum {
 public:
  Checksum();
  void Reset();
  void Add(const unsigned char* bytes, std::size_t count);
  std::uint64_t Value() const;

  static std::uint64_t Of(const unsigned char* bytes, std::size_t count);

 private:
  struct Free {
    void operator()(XXH3_state_s* state) const;
  };
  std::unique_ptr<XXH3_state_s, Free> m_state;
};

}  // namespace IncrementalExport
