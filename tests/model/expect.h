// What a runner expects of the library, and what it hands to it.
#pragma once

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace KavoTest {

using Bytes = std::vector<unsigned char>;

// The library did something else than the reference model said.
class Mismatch : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

template <class... Parts>
void Expect(bool condition, const Parts&... parts) {
  if (!condition) {
    std::ostringstream message;
    static_cast<void>((message << ... << parts));
    throw Mismatch(message.str());
  }
}

template <class Got, class Wanted>
void ExpectEqual(const Got& got, const Wanted& wanted, const char* what) {
  Expect(got == wanted, what, " is ", got, ", should be ", wanted);
}

// What output parameters hold before a call, to see afterwards whether it wrote them.
inline unsigned char g_noValue;
inline constexpr unsigned NO_NUMBER = 0xA5A5A5A5U;
inline constexpr unsigned long long NO_COUNT = 0xA5A5A5A5A5A5A5A5ULL;

inline Bytes ValueFor(unsigned char seed, long key, unsigned length) {
  Bytes bytes(length);
  for (unsigned i = 0; i < length; ++i) {
    bytes[i] = static_cast<unsigned char>(seed + static_cast<unsigned long>(key) * 31 + i * 7);
  }
  return bytes;
}

}  // namespace KavoTest
