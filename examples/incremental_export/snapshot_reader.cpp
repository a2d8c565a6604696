#include "incremental_export/snapshot_reader.h"

#include <fmt/format.h>

#include <algorithm>

namespace IncrementalExport {
namespace {

constexpr std::uint64_t READ_BYTES = std::uint64_t{1} << 20;

SnapshotHeader ReadHeader(const PosixFile& file) {
  HeaderBytes bytes{};
  if (file.ReadAt(0, bytes.data(), bytes.size()) < bytes.size()) {
    throw SnapshotError(file.Path(), fmt::format("is truncated: shorter than a header of {} bytes", HEADER_BYTES));
  }
  return DecodeHeader(bytes, file.Size(), file.Path());
}

}  // namespace

SnapshotReader::SnapshotReader(const std::string& path)
    : m_file(PosixFile::OpenToRead(path)), m_header(ReadHeader(m_file)) {
  Rewind();
}

void SnapshotReader::Rewind() {
  m_checksum.Reset();
  m_offset = HEADER_BYTES;
  m_buffer.clear();
  m_position = 0;
  m_admitted = 0;
  m_counted = 0;
}

void SnapshotReader::Verify() {
  ForEachRecord(*this, [](const SnapshotRecord&) {});
  Rewind();
}

std::optional<SnapshotRecord> SnapshotReader::Next() {
  if (m_admitted + m_counted == m_header.Records()) {
    if (m_checksum.Value() != m_header.bodyChecksum) {
      throw SnapshotError(Path(), "is damaged: the records do not match their checksum");
    }
    return std::nullopt;
  }
  RecordHeadBytes head{};
  Read(head.data(), head.size());
  SnapshotRecord record = DecodeRecordHead(head, m_header, Path());
  ++(record.admitted ? m_admitted : m_counted);
  // With both counts right the records end where the file does.
  if (m_admitted > m_header.admitted || m_counted > m_header.counted) {
    throw SnapshotError(Path(), "is damaged: other numbers of records than the header says");
  }
  if (record.admitted) {
    m_value.resize(m_header.valueLen);
    Read(m_value.data(), m_value.size());
    record.value = m_value.data();
  }
  return record;
}

void SnapshotReader::Read(unsigned char* bytes, std::size_t count) {
  while (count > 0) {
    if (m_position == m_buffer.size()) {
      Refill();
    }
    const std::size_t part = std::min(count, m_buffer.size() - m_position);
    std::copy_n(m_buffer.data() + m_position, part, bytes);
    m_position += part;
    bytes += part;
    count -= part;
  }
}

void SnapshotReader::Refill() {
  m_buffer.resize(static_cast<std::size_t>(std::min(READ_BYTES, m_header.FileBytes() - m_offset)));
  m_position = 0;
  if (m_file.ReadAt(m_offset, m_buffer.data(), m_buffer.size()) < m_buffer.size()) {
    throw SnapshotError(Path(), "was made shorter while it was read");
  }
  m_checksum.Add(m_buffer.data(), m_buffer.size());
  m_offset += m_buffer.size();
}

}  // namespace IncrementalExport
