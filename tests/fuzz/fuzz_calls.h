// The entry point that a fuzzer calls, and what it has done so far.
#pragma once

#include <cstddef>
#include <cstdint>

#include "model/call_runner.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace KavoTest {

const CallStatistics& FuzzStatistics();

}  // namespace KavoTest
