// Reads one snapshot file, and trusts nothing in it: the header is checked before a record is read, and Verify checks
// every byte of the rest before the caller acts on any of it. Memory: one buffer and one value.
//
// The file stays open from the first check to the last record, so a file that is replaced meanwhile does no harm; one
// that is changed in place is noticed, because the checksum is taken again with the records.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "incremental_export/checksum.h"
#include "incremental_export/posix_file.h"
#include "incremental_export/snapshot_format.h"

namespace IncrementalExport {

// All functions throw SnapshotError for a file that is not whole.
class SnapshotReader {
 public:
  // Checks the header.
  explicit SnapshotReader(const std::string& path);

  const SnapshotHeader& Header() const { return m_header; }
  const std::string& Path() const { return m_file.Path(); }

  // Reads all records, and goes back to the first.
  void Verify();
  void Rewind();
  // The next record, whose value bytes stay until the next call; none after the last, once the checksum matched.
  std::optional<SnapshotRecord> Next();

 private:
  void Read(unsigned char* bytes, std::size_t count);
  void Refill();

  PosixFile m_file;
  SnapshotHeader m_header;
  Checksum m_checksum;         // of the body up to m_offset
  std::uint64_t m_offset = 0;  // where the buffer ends in the file
  std::vector<unsigned char> m_buffer;
  std::size_t m_position = 0;    // in the buffer
  std::uint64_t m_admitted = 0;  // records read so far, with a value
  std::uint64_t m_counted = 0;   // and without
  std::vector<unsigned char> m_value;
};

// `use(record)` for each record, from the first.
template <typename Use>
void ForEachRecord(SnapshotReader& file, Use use) {
  file.Rewind();
  while (const std::optional<SnapshotRecord> record = file.Next()) {
    use(*record);
  }
}

}  // namespace IncrementalExport
