#include "incremental_export/snapshot_format.h"

#include <fmt/format.h>

#include <algorithm>
#include <type_traits>

#include "incremental_export/checksum.h"

namespace IncrementalExport {
namespace {

constexpr std::array<unsigned char, 8> MAGIC{'K', 'A', 'V', 'O', 'S', 'N', 'A', 'P'};
constexpr std::uint32_t VERSION = 1;

// Offsets, as the table in the header file has them.
constexpr std::size_t VERSION_AT = 8;
constexpr std::size_t KIND_AT = 12;
constexpr std::size_t TABLE_TYPE_AT = 16;
constexpr std::size_t VALUE_LEN_AT = 20;
constexpr std::size_t SEQUENCE_AT = 24;
constexpr std::size_t PREVIOUS_AT = 32;
constexpr std::size_t ADMITTED_AT = 40;
constexpr std::size_t COUNTED_AT = 48;
constexpr std::size_t BODY_CHECKSUM_AT = 56;
constexpr std::size_t HEADER_CHECKSUM_AT = 64;

constexpr std::size_t KEY_AT = 0;
constexpr std::size_t COUNT_AT = 8;
constexpr std::size_t STATE_AT = 12;
constexpr std::size_t ADMITTED_FLAG_AT = 13;
constexpr std::size_t ZERO_AT = 14;

template <typename Number>
void Put(unsigned char* bytes, Number number) {
  const auto bits = static_cast<std::make_unsigned_t<Number>>(number);
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    bytes[i] = static_cast<unsigned char>(bits >> (8 * i));
  }
}

template <typename Number>
Number Get(const unsigned char* bytes) {
  std::make_unsigned_t<Number> bits = 0;
  for (std::size_t i = sizeof(Number); i-- > 0;) {
    bits = static_cast<std::make_unsigned_t<Number>>(bits << 8 | bytes[i]);
  }
  return static_cast<Number>(bits);
}

// Divisions, because the product of a forged count may not fit 64 bits.
bool FitsFile(const SnapshotHeader& header, std::uint64_t fileBytes) {
  const std::uint64_t body = fileBytes - HEADER_BYTES;
  return header.admitted <= body / (RECORD_HEAD_BYTES + header.valueLen) &&
         header.counted <= body / RECORD_HEAD_BYTES && header.FileBytes() == fileBytes;
}

}  // namespace

HeaderBytes EncodeHeader(SnapshotHeader& header) {
  HeaderBytes bytes{};
  std::copy(MAGIC.begin(), MAGIC.end(), bytes.begin());
  Put(&bytes[VERSION_AT], VERSION);
  Put(&bytes[KIND_AT], static_cast<std::uint32_t>(header.kind));
  Put(&bytes[TABLE_TYPE_AT], static_cast<std::uint32_t>(header.tableType));
  Put(&bytes[VALUE_LEN_AT], header.valueLen);
  Put(&bytes[SEQUENCE_AT], header.sequence);
  Put(&bytes[PREVIOUS_AT], header.previous);
  Put(&bytes[ADMITTED_AT], header.admitted);
  Put(&bytes[COUNTED_AT], header.counted);
  Put(&bytes[BODY_CHECKSUM_AT], header.bodyChecksum);
  header.headerChecksum = Checksum::Of(bytes.data(), HEADER_CHECKSUM_AT);
  Put(&bytes[HEADER_CHECKSUM_AT], header.headerChecksum);
  return bytes;
}

SnapshotHeader DecodeHeader(const HeaderBytes& bytes, std::uint64_t fileBytes, const std::string& path) {
  if (!std::equal(MAGIC.begin(), MAGIC.end(), bytes.begin())) {
    throw SnapshotError(path, "is not a snapshot: it does not begin with KAVOSNAP");
  }
  // Before the checksum, which another version may keep elsewhere.
  const auto version = Get<std::uint32_t>(&bytes[VERSION_AT]);
  if (version != VERSION) {
    throw SnapshotError(path, fmt::format("is of format version {}; this program reads version {}", version, VERSION));
  }
  SnapshotHeader header;
  header.headerChecksum = Get<std::uint64_t>(&bytes[HEADER_CHECKSUM_AT]);
  if (header.headerChecksum != Checksum::Of(bytes.data(), HEADER_CHECKSUM_AT)) {
    throw SnapshotError(path, "is damaged: the header does not match its checksum");
  }
  const auto kind = Get<std::uint32_t>(&bytes[KIND_AT]);
  if (kind > static_cast<std::uint32_t>(SnapshotKind::INCREMENT)) {
    throw SnapshotError(path, fmt::format("unknown kind {}", kind));
  }
  header.kind = static_cast<SnapshotKind>(kind);
  const auto tableType = Get<std::uint32_t>(&bytes[TABLE_TYPE_AT]);
  if (tableType > static_cast<std::uint32_t>(kavo::TableType::FILTER)) {
    throw SnapshotError(path, fmt::format("unknown table type {}", tableType));
  }
  header.tableType = static_cast<kavo::TableType>(tableType);
  header.valueLen = Get<std::uint32_t>(&bytes[VALUE_LEN_AT]);
  header.sequence = Get<std::uint64_t>(&bytes[SEQUENCE_AT]);
  header.previous = Get<std::uint64_t>(&bytes[PREVIOUS_AT]);
  if ((header.kind == SnapshotKind::FULL) != (header.sequence == 0)) {
    throw SnapshotError(path, fmt::format("sequence number {} does not fit its kind", header.sequence));
  }
  header.admitted = Get<std::uint64_t>(&bytes[ADMITTED_AT]);
  header.counted = Get<std::uint64_t>(&bytes[COUNTED_AT]);
  header.bodyChecksum = Get<std::uint64_t>(&bytes[BODY_CHECKSUM_AT]);
  if (!FitsFile(header, fileBytes)) {
    throw SnapshotError(path, fmt::format("is truncated or has bytes too many: {} bytes do not hold {} records with "
                                          "and {} records without a value of {} bytes",
                                          fileBytes, header.admitted, header.counted, header.valueLen));
  }
  return header;
}

RecordHeadBytes EncodeRecordHead(const SnapshotRecord& record) {
  RecordHeadBytes bytes{};
  Put(&bytes[KEY_AT], record.key);
  Put(&bytes[COUNT_AT], record.count);
  Put(&bytes[STATE_AT], static_cast<std::uint8_t>(record.state));
  Put(&bytes[ADMITTED_FLAG_AT], static_cast<std::uint8_t>(record.admitted ? 1 : 0));
  return bytes;
}

SnapshotRecord DecodeRecordHead(const RecordHeadBytes& bytes, const SnapshotHeader& header, const std::string& path) {
  const auto admitted = Get<std::uint8_t>(&bytes[ADMITTED_FLAG_AT]);
  const auto state = Get<std::uint8_t>(&bytes[STATE_AT]);
  SnapshotRecord record;
  record.key = Get<std::int64_t>(&bytes[KEY_AT]);
  record.count = Get<std::uint32_t>(&bytes[COUNT_AT]);
  record.state = static_cast<ExportState>(state);
  record.admitted = admitted == 1;
  const bool stateFits = record.admitted
                             ? record.state == ExportState::EXPORTED || record.state == ExportState::FULL_ONLY
                             : record.state == ExportState::NONE;
  const bool tableFits = header.tableType == kavo::TableType::FILTER || (record.admitted && record.count == 0);
  if (record.key < 0 || admitted > 1 || Get<std::uint16_t>(&bytes[ZERO_AT]) != 0 || !stateFits || !tableFits) {
    throw SnapshotError(path, fmt::format("is damaged: no record can have key {}, count {}, state {} and admitted {}",
                                          record.key, record.count, state, admitted));
  }
  return record;
}

}  // namespace IncrementalExport
