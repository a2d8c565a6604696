// What an insert writes into the block of a key that it creates, before any other call can see that block: a lookup
// that finds a new key finds its whole value.
#pragma once

#include "platform/bounded_copy.h"
#include "table/value_header.h"

namespace Qen {

struct NewValue {
  const unsigned char* bytes;
  unsigned state;      // the header's
  int copyResult = 0;  // out: as of memcpy_s; not 0: the value is zero bytes and the header is as it was

  void WriteTo(unsigned char* block, unsigned len) noexcept {
    copyResult = memcpy_s(ValueBytes(block), len, bytes, len);
    if (copyResult == 0) {
      ValueHeader::Store(block, state);
    }
  }
};

}  // namespace Qen
