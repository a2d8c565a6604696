// The snapshot file, version 1: its header and its records as values, and as the bytes that stand in the file. All
// numbers are little-endian, whatever the machine. docs/snapshot-format.md describes the file for those who read it
// with other programs.
//
//   header, 72 bytes
//      0  magic "KAVOSNAP"
//      8  u32  version, 1
//     12  u32  kind: 0 full, 1 increment
//     16  u32  table type: 0 basic, 1 filter
//     20  u32  value length in bytes
//     24  u64  sequence number: 0 for a full snapshot, then 1, 2, ... for the increments that follow it
//     32  u64  header checksum of the file that this one follows; 0 for a full snapshot
//     40  u64  number of records with a value
//     48  u64  number of records without
//     56  u64  checksum of all bytes after the header
//     64  u64  checksum of the 64 bytes above
//   records, one after the other, in no particular order
//      0  i64  key
//      8  u32  occurrence count (filter tables; otherwise 0)
//     12  u8   export state: 1 exported, 2 due in full exports only; 0 without a value
//     13  u8   1 the key is admitted and its value follows, 0 it is only counted
//     14  u16  0
//     16  value bytes, if the key is admitted
//
// Checksums are XXH3, 64 bits, seed 0. A file is exactly as long as its header says.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <kavo.hpp>

namespace IncrementalExport {

inline constexpr std::size_t HEADER_BYTES = 72;
inline constexpr std::size_t RECORD_HEAD_BYTES = 16;

// A file that cannot be used, or written. The text begins with its path.
class SnapshotError : public std::runtime_error {
 public:
  SnapshotError(const std::string& path, const std::string& what) : std::runtime_error(path + ": " + what) {}
};

enum class SnapshotKind : std::uint32_t { FULL = 0, INCREMENT = 1 };

// When an entry is due for export. The first three stand in files: an entry that has got into a file is exported, so
// there a changed entry is EXPORTED.
enum class ExportState : std::uint8_t {
  NONE = 0,       // a key that is only counted has no value, hence no state
  EXPORTED = 1,   // not changed since the last export
  FULL_ONLY = 2,  // in full exports only, until it is changed
  CHANGED = 3,    // in the next export of changes; never in a file
};

struct SnapshotHeader {
  SnapshotKind kind = SnapshotKind::FULL;
  kavo::TableType tableType = kavo::TableType::BASIC;
  std::uint32_t valueLen = 0;
  std::uint64_t sequence = 0;
  std::uint64_t previous = 0;  // headerChecksum of the file that this one follows
  std::uint64_t admitted = 0;
  std::uint64_t counted = 0;
  std::uint64_t bodyChecksum = 0;
  std::uint64_t headerChecksum = 0;

  std::uint64_t Records() const { return admitted + counted; }
  std::uint64_t FileBytes() const { return HEADER_BYTES + Records() * RECORD_HEAD_BYTES + admitted * valueLen; }
};

struct SnapshotRecord {
  std::int64_t key = 0;
  std::uint32_t count = 0;
  ExportState state = ExportState::NONE;
  bool admitted = false;
  unsigned char* value = nullptr;  // null unless admitted
};

using HeaderBytes = std::array<unsigned char, HEADER_BYTES>;
using RecordHeadBytes = std::array<unsigned char, RECORD_HEAD_BYTES>;

// Computes the header checksum on the way.
HeaderBytes EncodeHeader(SnapshotHeader& header);
// Throws SnapshotError unless these bytes are the header of a file of `fileBytes` bytes, `path`, that this program can
// read. Then FileBytes() is `fileBytes`.
SnapshotHeader DecodeHeader(const HeaderBytes& bytes, std::uint64_t fileBytes, const std::string& path);

RecordHeadBytes EncodeRecordHead(const SnapshotRecord& record);
// Without the value. Throws SnapshotError if no record of such a file can look so.
SnapshotRecord DecodeRecordHead(const RecordHeadBytes& bytes, const SnapshotHeader& header, const std::string& path);

}  // namespace IncrementalExport
