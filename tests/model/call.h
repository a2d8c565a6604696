// A call of an exported function, as data: what a random sequence is made of. Any call can be made in any state, so a
// sequence stays valid whatever is left out of it. Which result a call must have is the reference model's business.
#pragma once

#include <array>
#include <cstddef>
#include <iosfwd>
#include <vector>

namespace KavoTest {

enum class Function : unsigned char {
  LOOKUP,
  LOOKUP_FOR_UPDATE,
  UPDATE,
  INSERT,
  INSERT_OR_UPDATE,
  LOOKUP_OR_INSERT,
  INIT_TABLE,
  UNINIT_TABLE,
  SET_FILTER_FREQ,
  PREPARE_MEM,
  GET_MEM,
  SIZE_AND_LENGTH,
  BATCH_GET_NEXT,
  BATCH_LOOKUP,
  BATCH_GATHER,
  BATCH_LOOKUP_OR_INSERT,
  BATCH_INSERT_OR_UPDATE,
  // Steps of the caller itself.
  WALK,         // a whole export, from its first batch to its last
  SPOIL_CURSOR  // forgets a cursor, or puts an address in its place that is none
};
inline constexpr unsigned FUNCTION_COUNT = static_cast<unsigned>(Function::SPOIL_CURSOR) + 1;
inline constexpr unsigned EXPORTED_COUNT = static_cast<unsigned>(Function::WALK);

const char* NameOf(Function function);

// Whether the function takes all keys of a call at once.
constexpr bool IsBatch(Function function) {
  return function >= Function::BATCH_LOOKUP && function <= Function::BATCH_INSERT_OR_UPDATE;
}

// Whether the function is a call on keys, and may make them.
constexpr bool IsOnKeys(Function function) {
  return function <= Function::LOOKUP_OR_INSERT || IsBatch(function);
}
constexpr bool MayInsert(Function function) {
  return IsOnKeys(function) && function != Function::UPDATE && function > Function::LOOKUP_FOR_UPDATE &&
         function != Function::BATCH_LOOKUP && function != Function::BATCH_GATHER;
}

// Keys come from families, so that calls meet each other's keys, and meet in buckets. Families overlap.
enum class KeyFamily : unsigned char {
  DENSE,
  TIMES_8,
  TIMES_16,
  TIMES_1024,
  EQUAL_LOW_32,
  RANDOM_62,
  EXTREME,
  NEGATIVE
};

long KeyOf(KeyFamily family, unsigned index);

// Keys of several threads, each with a share of its own: different for different shares. Negative keys stay.
long KeyOfShare(long key, unsigned share, unsigned shares);

// Where an inserting or updating call takes its bytes from. An address in the table that is not there falls back to a
// buffer of the caller's.
enum class Source : unsigned char { BUFFER, NOTHING, OWN_VALUE, OVERLAPPING, OTHER_VALUE };
inline constexpr unsigned SOURCE_COUNT = static_cast<unsigned>(Source::OTHER_VALUE) + 1;

inline constexpr std::array<unsigned, 5> TABLE_IDS{3, 1024, 1023, 4294967295U, 70000};
inline constexpr unsigned CURSOR_COUNT = 4;

struct Call {
  Function function = Function::LOOKUP;
  unsigned table = 0;  // into TABLE_IDS
  KeyFamily family = KeyFamily::DENSE;
  unsigned index = 0;  // of the first key in its family
  unsigned count = 1;  // the call is made so often, with consecutive keys or indexes where it has them; or the keys of
                       // a batch
  Source source = Source::BUFFER;
  unsigned tooLong = 0;         // what is said of a value's length is so much more than is right, or, wrapped, less
  unsigned number = 0;          // size, filterCount, freq, eleNum, or num
  unsigned kind = 0;            // table type, state, export mode, admittedOnly, or kind of batch
  unsigned valueLen = 8;        // of a new table
  unsigned long long wide = 0;  // index of prepared memory
  unsigned cursor = 0;
  unsigned char bytes = 0;  // from which the value is made; odd for a table that grows gradually
  bool writes = false;      // after a success, the caller writes the value in place
};

using Sequence = std::vector<Call>;

// What calls made from random bytes have in common.
struct Profile {
  KeyFamily families[2];
  unsigned pool;      // so many keys of each family
  unsigned mostKeys;  // of one call
};

std::ostream& operator<<(std::ostream& out, const Call& call);

// Any byte string is a sequence of calls: the first CALL_BYTES say which tables there are and which keys are used, each
// further CALL_BYTES are one call, and what is left over is ignored. Zero bytes give the simplest of all. Sequences
// stay small (few calls, few keys, small tables, short values); numbers that cost nothing take hostile values too.
// Weighted so that calls meet, many sequences grow a table several times, and many fill the reach of a bucket, which
// then gets an overflow map.
inline constexpr std::size_t CALL_BYTES = 12;
Call DecodeCall(const Profile& profile, const unsigned char* bytes);
Sequence DecodeCalls(const unsigned char* data, std::size_t size);

}  // namespace KavoTest
