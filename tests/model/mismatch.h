// The library did something else than the reference model said.
#pragma once

#include <sstream>
#include <stdexcept>
#include <string>

namespace KavoTest {

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

}  // namespace KavoTest
