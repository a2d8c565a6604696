// Turns any byte string into a sequence of calls, for the fuzzer.
//
//   byte 0         which tables are there at the start
//   12 bytes each  one call; what is left over is ignored
//
// Whatever the bytes say, a sequence stays small: few calls, few keys, small tables and short values. Numbers that cost
// nothing take any hostile value.
#pragma once

#include <cstddef>

#include "model/call.h"

namespace KavoTest {

Sequence DecodeCalls(const unsigned char* data, std::size_t size);

}  // namespace KavoTest
