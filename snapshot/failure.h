// How a call of this library fails: an exception inside, a status and a text for the calling thread outside.
#pragma once

#include <stdexcept>
#include <string>

namespace Qen {

class Failure : public std::runtime_error {
 public:
  Failure(int status, const std::string& text) : std::runtime_error(text), m_status(status) {}
  int Status() const noexcept { return m_status; }

 private:
  int m_status;
};

// Throws a Failure with a formatted text; longer ones are cut.
[[noreturn]] void Fail(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

// What a function of the base answered.
inline void CheckBase(int status, const char* function) {
  if (status != 0) {
    throw Failure(status, std::string(function) + " answered " + std::to_string(status));
  }
}

// Keeps the text for KavoEmbeddingLastError, behind the name of the function that failed. Longer texts are cut.
void KeepText(const char* function, const char* text) noexcept;
const char* LastText() noexcept;

// Turns whatever `call` throws into its status and text.
int StatusOfException(const char* function) noexcept;

template <class Call>
int Serve(const char* function, const Call& call) noexcept {
  try {
    call();
    return 0;
  } catch (...) {
    return StatusOfException(function);
  }
}

}  // namespace Qen
