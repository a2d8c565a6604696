#include "model/call.h"

#include <climits>
#include <ostream>

namespace KavoTest {
namespace {

constexpr std::array<const char*, FUNCTION_COUNT> FUNCTION_NAMES{"KavoInitHashTable",
                                                                 "KavoUninitHashTable",
                                                                 "KavoLookup",
                                                                 "KavoLookupForUpdate",
                                                                 "KavoUpdate",
                                                                 "KavoInsert",
                                                                 "KavoInsertOrUpdate",
                                                                 "KavoLookupOrInsert",
                                                                 "KavoSetFilterFreq",
                                                                 "KavoPrepareMemForValues",
                                                                 "KavoGetMemForValue",
                                                                 "KavoGetHtSizeAndVl",
                                                                 "KavoBatchGetNext",
                                                                 "KavoBatchLookup",
                                                                 "KavoBatchGather",
                                                                 "KavoBatchLookupOrInsert",
                                                                 "KavoBatchInsertOrUpdate",
                                                                 "InitPartitionMap",
                                                                 "UninitPartitionMap",
                                                                 "QueryPartitionMapPsId",
                                                                 "GetBatchPsIds",
                                                                 "KavoSetLogSink",
                                                                 "Walk",
                                                                 "SpoilCursor"};
constexpr std::array<const char*, FAMILY_COUNT> FAMILY_NAMES{"DENSE",        "TIMES_8",   "TIMES_16", "TIMES_1024",
                                                             "EQUAL_LOW_32", "RANDOM_62", "EXTREME",  "NEGATIVE"};
constexpr std::array<const char*, SOURCE_COUNT> SOURCE_NAMES{"BUFFER", "NOTHING", "OWN_VALUE", "OVERLAPPING",
                                                             "OTHER_VALUE"};
constexpr std::array<const char*, LENGTH_COUNT> LENGTH_NAMES{"RIGHT", "ONE_LESS", "ONE_MORE", "ZERO", "HUGE_LENGTH"};

// A one-to-one mixing function.
unsigned long long Mix(unsigned long long x) {
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

}  // namespace

const char* NameOf(Function function) {
  return FUNCTION_NAMES[static_cast<unsigned>(function)];
}

long KeyOf(KeyFamily family, unsigned index) {
  const long i = static_cast<long>(index);
  switch (family) {
    case KeyFamily::DENSE:
      return i;
    case KeyFamily::TIMES_8:
      return i * 8;
    case KeyFamily::TIMES_16:
      return i * 16;
    case KeyFamily::TIMES_1024:
      return i * 1024;
    case KeyFamily::EQUAL_LOW_32:
      return ((i % (1L << 30)) + 1) << 32 | 5;
    case KeyFamily::RANDOM_62:
      return static_cast<long>(Mix(index) & ((1ULL << 62) - 1));
    case KeyFamily::EXTREME: {
      constexpr std::array<long, 6> KEYS{0, LONG_MAX, LONG_MAX - 1, 1L << 62, UINT_MAX, 1L << 32};
      return KEYS[index % KEYS.size()];
    }
    default: {
      constexpr std::array<long, 4> KEYS{-1, LONG_MIN, -2, -4294967296L};
      return KEYS[index % KEYS.size()];
    }
  }
}

std::ostream& operator<<(std::ostream& out, const Call& call) {
  const Call plain;
  out << NameOf(call.function) << "(table " << TABLE_IDS[call.table] << ", key " << KeyOf(call.family, call.index)
      << " = " << FAMILY_NAMES[static_cast<unsigned>(call.family)] << "[" << call.index << "]";
  const auto field = [&out](const char* name, auto value, auto usual) {
    if (value != usual) {
      out << ", " << name << " " << value;
    }
  };
  field("count", call.count, plain.count);
  field("source", SOURCE_NAMES[static_cast<unsigned>(call.source)], SOURCE_NAMES[0]);
  field("length", LENGTH_NAMES[static_cast<unsigned>(call.length)], LENGTH_NAMES[0]);
  field("number", call.number, plain.number);
  field("kind", call.kind, plain.kind);
  field("valueLen", call.valueLen, plain.valueLen);
  field("wide", call.wide, plain.wide);
  field("cursor", call.cursor, plain.cursor);
  field("nulls", call.nulls, plain.nulls);
  field("bytes", static_cast<unsigned>(call.bytes), 0U);
  field("writes", call.writes, false);
  return out << ")";
}

}  // namespace KavoTest
