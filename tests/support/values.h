// What a table holds under a key. Needs the public header only.
#pragma once

#include <vector>

#include "kavo.h"

namespace KavoTest {

using Bytes = std::vector<unsigned char>;

// Null when the key is absent, or only counted.
inline unsigned char* AddressOf(unsigned table, long key, unsigned* len = nullptr) {
  unsigned char* address = nullptr;
  unsigned length = 0;
  const int status = KavoLookup(table, key, &address, len != nullptr ? len : &length);
  return status == KAVO_SUCCESS ? address : nullptr;
}

inline Bytes Stored(unsigned table, long key) {
  unsigned len = 0;
  const unsigned char* const address = AddressOf(table, key, &len);
  return address == nullptr ? Bytes() : Bytes(address, address + len);
}

}  // namespace KavoTest
