// Constants of the hash core and the answers of its steps.
#pragma once

#include <cstdint>

#include "kavo.h"

namespace Qen {

namespace HCore {

// The key of a cell that holds none, at every interface. Cells store keys complemented, so that zero memory is empty.
inline constexpr long EMPTY_KEY = -1;

// How far an insert may probe beyond the end of a bucket's chain.
inline constexpr unsigned long long LINEAR_SEARCH_LEN = 128;

// Overflow maps allowed per cell before a generation must grow.
inline constexpr float MAP_RATIO = 0.00075F;

// A wait for another thread's step: this many sleeps of this length.
inline constexpr unsigned long long MAX_WAIT_TIME = 1'000'000;
inline constexpr unsigned WAIT_INTERVAL_US = 5;

// A wait for the end of a whole generation's move.
inline constexpr unsigned long long MAX_GENERATION_WAIT_TIME = 10'000'000;
inline constexpr unsigned GENERATION_WAIT_INTERVAL_US = 7;

// Bucket flags; they live on the bucket's home cell. See bucket_flags.h.
inline constexpr std::uint8_t BUCKET_MOVING = 0x01;
inline constexpr std::uint8_t BUCKET_MOVED = 0x02;
inline constexpr std::uint8_t MAP_BUILDING = 0x40;
inline constexpr std::uint8_t MAP_READY = 0x80;

}  // namespace HCore

// How a full generation's entries get into the next one.
inline constexpr std::uint8_t REHASH_GRADUAL = 1;
inline constexpr std::uint8_t REHASH_WHOLE_TABLE = 2;

// Answers of insert-or-find, beside the negative status codes. They never leave the library.
inline constexpr int ENTRY_FOUND = 0;
inline constexpr int ENTRY_INSERTED = 1;
inline constexpr int MUST_GROW = 2;

}  // namespace Qen
