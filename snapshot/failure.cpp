#include "snapshot/failure.h"

#include <cstdarg>
#include <cstdio>
#include <new>
#include <system_error>

#include "kavo.hpp"
#include "kavo_embedding.h"

namespace Qen {
namespace {

constexpr std::size_t TEXT_BYTES = 1024;

thread_local char t_text[TEXT_BYTES];

}  // namespace

void Fail(int status, const char* format, ...) {
  char text[TEXT_BYTES];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  throw Failure(status, text);
}

void KeepText(const char* function, const char* text) noexcept {
  std::snprintf(t_text, sizeof(t_text), "%s: %s", function, text);
}

const char* LastText() noexcept {
  return t_text;
}

int StatusOfException(const char* function) noexcept {
  try {
    throw;
  } catch (const Failure& failure) {
    KeepText(function, failure.what());
    return failure.Status();
  } catch (const kavo::Error& error) {
    KeepText(function, error.what());
    return static_cast<int>(error.Cause());
  } catch (const std::bad_alloc&) {
    KeepText(function, "no memory");
    return KAVO_NO_MEMORY;
  } catch (const std::length_error&) {  // of a container that was to hold more than there can be
    KeepText(function, "no memory");
    return KAVO_NO_MEMORY;
  } catch (const std::exception& error) {
    KeepText(function, error.what());
    return KAVO_FAILED;
  }
}

}  // namespace Qen
