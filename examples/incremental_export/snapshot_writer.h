// Writes one snapshot file, so that a crash at any moment leaves either the file that was there before or the new one,
// whole. Records go to PATH.partial, whose header stays zero until everything else is written; Commit brings it to the
// disk and only then gives it its name.
#pragma once

#include <string>
#include <vector>

#include "incremental_export/checksum.h"
#include "incremental_export/posix_file.h"
#include "incremental_export/snapshot_format.h"

namespace IncrementalExport {

class SnapshotWriter {
 public:
  // Of the header, counts and checksums are filled in here.
  SnapshotWriter(std::string path, const SnapshotHeader& header);
  SnapshotWriter(const SnapshotWriter&) = delete;
  SnapshotWriter& operator=(const SnapshotWriter&) = delete;
  // Without Commit, nothing is left but what was there before.
  ~SnapshotWriter();

  void Append(const SnapshotRecord& record);
  // Returns the header as it stands in the file. Once this has returned, the file survives a crash.
  SnapshotHeader Commit();

 private:
  void Write(const unsigned char* bytes, std::size_t count);
  void Flush();

  const std::string m_path;
  const PosixFile m_file;
  SnapshotHeader m_header;
  Checksum m_checksum;                    // of the body up to m_offset
  std::uint64_t m_offset = HEADER_BYTES;  // where the buffer goes
  std::vector<unsigned char> m_buffer;
  bool m_committed = false;
};

}  // namespace IncrementalExport
