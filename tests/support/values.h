// Value bytes that name their key, and what a table holds under one. Needs the public header only.
#pragma once

#include <vector>

#include "kavo.h"

namespace KavoTest {

using Bytes = std::vector<unsigned char>;

// Not all zeros for any key.
inline Bytes ValueOf(long key, unsigned len) {
  Bytes bytes(len);
  for (unsigned i = 0; i < len; ++i) {
    bytes[i] = static_cast<unsigned char>(static_cast<unsigned long>(key) % 251 + i + 1);
  }
  return bytes;
}

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
