// What the library holds of the system's memory. Testing build only.
#pragma once

#include <ostream>

#include "platform/test_hooks.h"

namespace KavoTest {

// Of all threads, at the moment of its making.
struct Held {
  long long heap = Qen::TestHooks::HeapBytesInUse();
  long long mapped = Qen::TestHooks::MappedBytesInUse();
  bool operator==(const Held&) const = default;
  friend void PrintTo(const Held& held, std::ostream* out) {
    *out << held.heap << " bytes of heap, " << held.mapped << " mapped";
  }
};

}  // namespace KavoTest
