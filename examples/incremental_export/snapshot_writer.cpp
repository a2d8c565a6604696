#include "incremental_export/snapshot_writer.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace IncrementalExport {
namespace {

constexpr std::size_t BUFFER_BYTES = std::size_t{1} << 20;
constexpr const char* PARTIAL_SUFFIX = ".partial";

}  // namespace

SnapshotWriter::SnapshotWriter(std::string path, const SnapshotHeader& header)
    : m_path(std::move(path)), m_file(PosixFile::Create(m_path + PARTIAL_SUFFIX)), m_header(header) {
  m_header.admitted = 0;
  m_header.counted = 0;
  m_buffer.reserve(BUFFER_BYTES);
}

SnapshotWriter::~SnapshotWriter() {
  if (!m_committed) {
    ::unlink(m_file.Path().c_str());
  }
}

void SnapshotWriter::Append(const SnapshotRecord& record) {
  const RecordHeadBytes head = EncodeRecordHead(record);
  Write(head.data(), head.size());
  if (record.admitted) {
    Write(record.value, m_header.valueLen);
    ++m_header.admitted;
  } else {
    ++m_header.counted;
  }
}

void SnapshotWriter::Write(const unsigned char* bytes, std::size_t count) {
  while (count > 0) {
    const std::size_t part = std::min(count, BUFFER_BYTES - m_buffer.size());
    m_buffer.insert(m_buffer.end(), bytes, bytes + part);
    bytes += part;
    count -= part;
    if (m_buffer.size() == BUFFER_BYTES) {
      Flush();
    }
  }
}

void SnapshotWriter::Flush() {
  m_checksum.Add(m_buffer.data(), m_buffer.size());
  m_file.WriteAt(m_offset, m_buffer.data(), m_buffer.size());
  m_offset += m_buffer.size();
  m_buffer.clear();
}

SnapshotHeader SnapshotWriter::Commit() {
  Flush();
  m_header.bodyChecksum = m_checksum.Value();
  const HeaderBytes header = EncodeHeader(m_header);
  m_file.WriteAt(0, header.data(), header.size());
  m_file.Sync();
  RenameDurably(m_file.Path(), m_path);
  m_committed = true;
  return m_header;
}

}  // namespace IncrementalExport
