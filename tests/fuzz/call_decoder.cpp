#include "fuzz/call_decoder.h"

#include <algorithm>
#include <array>

#include "kavo.h"

namespace KavoTest {
namespace {

constexpr std::size_t CALL_BYTES = 12;
constexpr std::size_t MOST_CALLS = 64;
constexpr unsigned MOST_REPETITIONS = 700;  // of all calls together
constexpr unsigned MOST_WALKS = 8;

constexpr std::array<unsigned, 16> BOUNDARIES{99,         100,        101,        150,        1000,       65535,
                                              65536,      2147483647, 2147483648, 4294967290, 4294967291, 4294967292,
                                              4294967293, 4294967294, 4294967295, 1024};

unsigned Number(unsigned char byte) {
  return byte < 256 - BOUNDARIES.size() ? byte : BOUNDARIES[byte - (256 - BOUNDARIES.size())];
}

// Only one size is beyond all memory on every machine, and only with the greatest length.
void DecodeTable(const unsigned char* bytes, Call& call) {
  call.count = 1;
  if (bytes[6] == 255) {
    call.number = 4294967295U;
    call.valueLen = 4294967291U;
    return;
  }
  call.number = 1 + bytes[6] * 4U;
  const unsigned length = Number(bytes[8]);
  call.valueLen = bytes[8] < 240 ? 1 + bytes[8] % 64U : std::max(length, 4294967292U);
  if (bytes[8] == 240) {
    call.valueLen = 0;
  }
}

Call DecodeCall(const unsigned char* bytes) {
  constexpr std::array<unsigned char, 8> TABLES{0, 0, 0, 0, 1, 1, 2, 3};
  Call call;
  call.function = static_cast<Function>(bytes[0] % FUNCTION_COUNT);
  call.table = TABLES[bytes[1] & 7U];
  call.cursor = (bytes[1] >> 3 & 3U) % CURSOR_COUNT;
  call.writes = (bytes[1] & 128U) != 0;
  const unsigned family = bytes[2] & 15U;
  call.family = family < FAMILY_COUNT ? static_cast<KeyFamily>(family) : KeyFamily::DENSE;
  const unsigned source = bytes[2] >> 4;
  call.source = source < 8 ? Source::BUFFER : static_cast<Source>(source % SOURCE_COUNT);
  // Mostly single calls on few keys, so that calls meet; long runs now and then, so that tables grow.
  call.index = bytes[3] < 128 ? bytes[3] % 8U : bytes[3];
  call.count = bytes[4] < 128 ? 1 : bytes[4] < 208 ? bytes[4] % 8U + 1 : (bytes[4] - 207U) * 5;
  if (bytes[5] >= 192) {
    call.nulls = bytes[5] & 15U;
    call.length = static_cast<Length>((bytes[5] >> 3 & 7U) % LENGTH_COUNT);
  }
  call.number = Number(bytes[6]);
  call.kind = Number(bytes[7]);
  call.bytes = bytes[9];
  call.wide = bytes[10] < 240 ? bytes[10] % 16U : ~static_cast<unsigned long long>(bytes[11]);
  switch (call.function) {
    case Function::INIT_TABLE:
      DecodeTable(bytes, call);
      break;
    case Function::INIT_PARTITION_MAP:
    case Function::BATCH_PS_IDS:
      call.number %= 9;
      [[fallthrough]];
    case Function::UNINIT_TABLE:
    case Function::SET_FILTER_FREQ:
    case Function::PREPARE_MEM:
    case Function::SIZE_AND_LENGTH:
    case Function::UNINIT_PARTITION_MAP:
    case Function::SET_LOG_SINK:
    case Function::WALK:
    case Function::SPOIL_CURSOR:
      call.count = 1;
      break;
    default:
      break;
  }
  return call;
}

Call FirstTable(unsigned table, unsigned tableType) {
  Call call;
  call.function = Function::INIT_TABLE;
  call.table = table;
  call.number = 8;
  call.kind = tableType;
  return call;
}

}  // namespace

Sequence DecodeCalls(const unsigned char* data, std::size_t size) {
  Sequence sequence;
  if (size == 0) {
    return sequence;
  }
  if ((data[0] & 1U) != 0) {
    sequence.push_back(FirstTable(0, (data[0] & 2U) != 0 ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC));
  }
  if ((data[0] & 4U) != 0) {
    sequence.push_back(FirstTable(1, KAVO_TABLE_TYPE_FILTER));
  }
  unsigned repetitions = MOST_REPETITIONS;
  unsigned walks = MOST_WALKS;
  for (std::size_t at = 1; at + CALL_BYTES <= size && sequence.size() < MOST_CALLS; at += CALL_BYTES) {
    Call call = DecodeCall(data + at);
    if (call.function == Function::WALK && walks-- == 0) {
      break;
    }
    call.count = std::min(call.count, repetitions);
    repetitions -= call.count;
    if (call.count == 0) {
      break;
    }
    sequence.push_back(call);
  }
  return sequence;
}

}  // namespace KavoTest
