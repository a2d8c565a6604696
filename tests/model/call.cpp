#include "model/call.h"

#include <climits>
#include <ostream>

#include "kavo.h"

namespace KavoTest {
namespace {

// In the order of Function, each with how many of 256 decoded calls are its.
constexpr struct {
  const char* name;
  unsigned weight;
} FUNCTIONS[FUNCTION_COUNT]{{"KavoLookup", 18},
                            {"KavoLookupForUpdate", 10},
                            {"KavoUpdate", 11},
                            {"KavoInsert", 34},
                            {"KavoInsertOrUpdate", 28},
                            {"KavoLookupOrInsert", 38},
                            {"KavoInitHashTable", 3},
                            {"KavoUninitHashTable", 3},
                            {"KavoSetFilterFreq", 6},
                            {"KavoPrepareMemForValues", 3},
                            {"KavoGetMemForValue", 6},
                            {"KavoGetHtSizeAndVl", 8},
                            {"KavoBatchGetNext", 20},
                            {"KavoBatchLookup", 8},
                            {"KavoBatchGather", 8},
                            {"KavoBatchLookupOrInsert", 16},
                            {"KavoBatchInsertOrUpdate", 16},
                            {"Walk", 12},
                            {"SpoilCursor", 8}};

constexpr std::size_t MOST_CALLS = 64;
constexpr unsigned MOST_KEYS = 2000;  // of all calls of a sequence together
constexpr unsigned MOST_WALKS = 8;

constexpr KeyFamily COMMON_FAMILIES[]{KeyFamily::DENSE,      KeyFamily::TIMES_8,      KeyFamily::TIMES_16,
                                      KeyFamily::TIMES_1024, KeyFamily::EQUAL_LOW_32, KeyFamily::RANDOM_62,
                                      KeyFamily::DENSE};
constexpr Function INSERTS[]{Function::LOOKUP_OR_INSERT, Function::INSERT, Function::INSERT_OR_UPDATE,
                             Function::BATCH_LOOKUP_OR_INSERT, Function::BATCH_INSERT_OR_UPDATE};
constexpr unsigned COUNTS[]{0, 0, 1, 1, 1, 2, 49, 50, 99, 100, 150, 4294967290U, 4294967295U};
constexpr unsigned FREQUENCIES[]{0, 1, 2, 3, 51, 100, 4294967295U};
constexpr unsigned CAPACITIES[]{0, 1, 2, 3, 7, 20, 64, 100, 1000, 4294967295U};
constexpr unsigned MODES[]{0, 0, 1, 2, 2, 3, 3, 4, 7, 4294967295U};
constexpr unsigned STATES[]{0, 0, 1, 1, 2, 3, 7, 4294967295U};

template <class T, std::size_t N>
T Pick(const T (&choices)[N], unsigned char byte) {
  return choices[byte % N];
}

// A one-to-one mixing function.
unsigned long long Mix(unsigned long long x) {
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

}  // namespace

const char* NameOf(Function function) {
  return FUNCTIONS[static_cast<unsigned>(function)].name;
}

long KeyOf(KeyFamily family, unsigned index) {
  constexpr std::array<long, 4> STEPS{1, 8, 16, 1024};
  const long i = static_cast<long>(index);
  switch (family) {
    case KeyFamily::EQUAL_LOW_32:
      return ((i % (1L << 30)) + 1) << 32 | 5;
    case KeyFamily::RANDOM_62:
      return static_cast<long>(Mix(index) & ((1ULL << 62) - 1));
    case KeyFamily::EXTREME: {
      constexpr std::array<long, 6> KEYS{0, LONG_MAX, LONG_MAX - 1, 1L << 62, UINT_MAX, 1L << 32};
      return KEYS[index % KEYS.size()];
    }
    case KeyFamily::NEGATIVE: {
      constexpr std::array<long, 4> KEYS{-1, LONG_MIN, -2, -4294967296L};
      return KEYS[index % KEYS.size()];
    }
    default:
      return i * STEPS[static_cast<unsigned>(family)];
  }
}

long KeyOfShare(long key, unsigned share, unsigned shares) {
  return key < 0 ? key : key % (LONG_MAX / shares) * shares + share;
}

std::ostream& operator<<(std::ostream& out, const Call& call) {
  const Call plain;
  out << NameOf(call.function) << "(table " << TABLE_IDS[call.table] << ", key " << KeyOf(call.family, call.index);
  const auto field = [&out](const char* name, auto value, auto usual) {
    if (value != usual) {
      out << ", " << name << " " << static_cast<unsigned long long>(value);
    }
  };
  field("index", call.index, plain.index);
  field("count", call.count, plain.count);
  field("source", call.source, plain.source);
  field("tooLong", call.tooLong, plain.tooLong);
  field("number", call.number, plain.number);
  field("kind", call.kind, plain.kind);
  field("valueLen", call.valueLen, plain.valueLen);
  field("wide", call.wide, plain.wide);
  field("cursor", call.cursor, plain.cursor);
  field("bytes", call.bytes, plain.bytes);
  field("writes", call.writes, plain.writes);
  return out << ")";
}

namespace {

Call TableOf(unsigned table, bool isFilter, unsigned size, unsigned char byte) {
  constexpr unsigned LENGTHS[]{8, 1, 3, 4, 7, 12, 16, 40};
  Call call;
  call.function = Function::INIT_TABLE;
  call.table = table;
  call.number = size;
  call.kind = isFilter ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC;
  call.valueLen = Pick(LENGTHS, byte);
  call.bytes = byte >> 3 & 1U;
  return call;
}

Function FunctionOf(unsigned char byte) {
  unsigned left = byte;
  unsigned function = 0;
  for (; left >= FUNCTIONS[function].weight; ++function) {
    left -= FUNCTIONS[function].weight;
  }
  return static_cast<Function>(function);
}

// The calls that a sequence begins with.
Profile Begin(const unsigned char* head, Sequence& sequence) {
  constexpr unsigned POOLS[]{4, 20, 200, 400};
  constexpr unsigned MOST[]{3, 40, 120};
  enum { PLAIN, GROWING, CROWDED } const course = head[0] < 96 ? PLAIN : head[0] < 192 ? GROWING : CROWDED;
  Profile profile{{Pick(COMMON_FAMILIES, head[1]), Pick(COMMON_FAMILIES, head[2])},
                  Pick(POOLS, head[3]),
                  course == GROWING ? 120 : Pick(MOST, head[4])};
  const unsigned options = head[5];
  sequence.push_back(TableOf(0, (options & 1U) != 0, course == CROWDED ? 600 + head[6] : 1U + head[6] % 30U, head[7]));
  if ((options & 2U) != 0) {
    sequence.push_back(TableOf(1, (options & 4U) != 0, 1U + head[6] % 100U, head[8]));
  }
  Call call;
  const auto add = [&](Function function, unsigned number, unsigned count) {
    call.function = function;
    call.number = number;
    call.count = count;
    sequence.push_back(call);
  };
  if ((options & 8U) != 0) {
    add(Function::SET_FILTER_FREQ, head[8] >> 6, 1);  // single occurrences soon admit
  }
  call.writes = true;
  if ((options & 96U) == 96) {
    add(Function::PREPARE_MEM, 0, 1);
    add(Function::GET_MEM, 0, 1U + head[8] % 12U);
  }
  if (course == PLAIN) {
    return profile;
  }
  if (course == CROWDED) {
    profile.families[0] = KeyFamily::DENSE;
    profile.families[1] = head[2] % 2 == 0 ? KeyFamily::EQUAL_LOW_32 : KeyFamily::TIMES_1024;
  }
  call.family = profile.families[0];
  call.kind = head[10] & 2U;
  call.bytes = head[9];
  call.index = head[10] % 8U;
  add(Pick(INSERTS, head[9]), Pick(COUNTS, head[9]), course == GROWING ? 100U + head[11] : 136U + head[11] % 85U);
  if (course == CROWDED) {
    // That run of keys has filled its part of the table, and keys at home within it find no cell within reach. A lookup
    // of one that is absent must go through the bucket's map to say so.
    call.family = profile.families[1];
    add(call.function, call.number, 1U + head[10] % 6U);
    call.index += head[10] >> 3 & 7U;
    add(Function::LOOKUP, 0, 1);
  }
  return profile;
}

}  // namespace

Call DecodeCall(const Profile& profile, const unsigned char* bytes) {
  constexpr unsigned TOO_LONG[]{1, ~0U, 1U << 31};
  constexpr unsigned TABLES[]{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2};
  Call call;
  call.function = FunctionOf(bytes[0]);
  call.table = TABLES[bytes[1] & 15U];
  call.cursor = (bytes[1] >> 4 & 3U) % CURSOR_COUNT;
  call.writes = (bytes[1] & 64U) != 0;
  call.family = bytes[2] < 252   ? profile.families[bytes[2] % 2]
                : bytes[2] < 254 ? KeyFamily::EXTREME
                                 : KeyFamily::NEGATIVE;
  call.index = (bytes[3] + (bytes[2] & 2U) * 128U) % profile.pool;
  call.count = bytes[4] < 128 ? 1 : 1 + bytes[4] % profile.mostKeys;
  // Bytes that overlap the value which they are to replace most often.
  call.source = bytes[5] < 192   ? Source::BUFFER
                : bytes[5] < 224 ? Source::OVERLAPPING
                                 : static_cast<Source>(bytes[5] % SOURCE_COUNT);
  call.tooLong = bytes[6] < 250 ? 0 : Pick(TOO_LONG, bytes[6]);
  call.number = Pick(COUNTS, bytes[7]);
  call.kind = Pick(STATES, bytes[8]);
  call.bytes = bytes[9];
  call.wide = bytes[10] < 128 ? 0 : bytes[10] < 240 ? bytes[10] % 16U : ~0ULL - bytes[11] % 4U;
  switch (call.function) {
    case Function::INIT_TABLE: {
      constexpr unsigned TYPES[]{2, 3, 4294967295U};
      constexpr unsigned LENGTHS[]{0, 4294967292U, 4294967295U};
      call = TableOf(bytes[1] % 3U, bytes[2] % 2 != 0, 1U + bytes[3] % 60U, bytes[9]);
      call.kind = bytes[4] < 216 ? call.kind : Pick(TYPES, bytes[4]);
      call.valueLen = bytes[5] < 216 ? call.valueLen : Pick(LENGTHS, bytes[5]);
      if (bytes[6] >= 236) {  // more than any address space holds
        call.number = 4294967295U;
        call.valueLen = 4294967291U;
      }
      break;
    }
    case Function::GET_MEM:
      call.count = 1 + call.count % 5;
      break;
    case Function::BATCH_GET_NEXT:
    case Function::WALK:
      call.count = call.function == Function::WALK ? 1 : 1 + call.count % 4;
      call.number = Pick(CAPACITIES, bytes[7]);
      call.kind = Pick(MODES, bytes[8]);
      break;
    default:
      call.number = call.function == Function::SET_FILTER_FREQ ? Pick(FREQUENCIES, bytes[7]) : call.number;
      call.count = IsOnKeys(call.function) ? call.count : 1;
  }
  return call;
}

Sequence DecodeCalls(const unsigned char* data, std::size_t size) {
  Sequence sequence;
  if (size < CALL_BYTES) {
    return sequence;
  }
  const Profile profile = Begin(data, sequence);
  unsigned keys = MOST_KEYS;
  unsigned walks = MOST_WALKS;
  for (std::size_t at = CALL_BYTES; at + CALL_BYTES <= size && sequence.size() < MOST_CALLS; at += CALL_BYTES) {
    const Call call = DecodeCall(profile, data + at);
    if (call.count > keys || (call.function == Function::WALK && walks-- == 0)) {
      break;
    }
    keys -= call.count;
    sequence.push_back(call);
  }
  return sequence;
}

}  // namespace KavoTest
