#include "snapshot/part_writer.h"

#include <algorithm>

namespace Qen {

PartWriter::PartWriter(const std::string& path, const FileHeader& header, std::uint32_t part,
                       std::vector<ItemDescription> items, int level)
    : m_file(path, File::How::CREATE), m_items(std::move(items)), m_level(level), m_totals(m_items.size()) {
  ByteWriter bytes;
  header.Put(bytes, PART_MAGIC);
  bytes.Put(part);
  bytes.Put(static_cast<std::uint32_t>(m_items.size()));
  const std::size_t lengthOffset = bytes.All().size();
  bytes.Put(std::uint32_t{0});
  for (const ItemDescription& item : m_items) {
    item.Put(bytes);
  }
  m_end = bytes.All().size();
  bytes.Patch(lengthOffset, static_cast<std::uint32_t>(m_end));
  m_checksum.Add(bytes.All());
  m_file.WriteAt(0, bytes.All().data(), bytes.All().size());
}

PartWriter::~PartWriter() {
  if (!m_finished) {
    RemoveFile(m_file.Path());
  }
}

std::uint64_t PartWriter::AddBlock(BlockType type, std::uint32_t item, std::uint32_t records, Bytes raw) {
  BlockHeader header{type, item, records, Codec::RAW, raw.size(), raw.size(), 0};
  Bytes stored = raw;
  std::vector<unsigned char> compressed;
  if (m_level > 0 && raw.size() <= MOST_COMPRESSED_BYTES && Compress(raw, m_level, compressed)) {
    header.codec = Codec::ZSTD;
    header.storedBytes = compressed.size();
    stored = compressed;
  }
  header.checksum = Checksum(stored);
  ByteWriter bytes;
  header.Put(bytes);
  std::uint64_t place = 0;
  {
    const std::lock_guard lock(m_mutex);
    place = m_end;
    m_end += BlockHeader::BYTES + stored.size();
    m_checksum.Add(bytes.All());
    if (type != BlockType::END) {
      m_totals[item].Of(type) += records;
    }
  }
  m_file.WriteAt(place, bytes.All().data(), BlockHeader::BYTES);
  m_file.WriteAt(place + BlockHeader::BYTES, stored.data(), stored.size());
  return BlockHeader::BYTES + stored.size();
}

PartSeal PartWriter::Finish() {
  ByteWriter totals;
  for (const ItemTotals& item : m_totals) {
    item.Put(totals);
  }
  AddBlock(BlockType::END, 0, static_cast<std::uint32_t>(m_totals.size()), totals.All());
  const std::uint64_t checksum = m_checksum.Value();
  m_file.WriteAt(m_end, &checksum, sizeof(checksum));
  m_file.Sync();
  m_finished = true;
  return {m_end + sizeof(checksum), checksum};
}

RecordBuffer::RecordBuffer(PartWriter& writer, BlockType type, std::uint32_t item)
    : m_writer(writer),
      m_type(type),
      m_item(item),
      m_recordBytes(writer.Items()[item].RecordBytes(type)),
      m_capacity(std::max<std::size_t>(BLOCK_BYTES / m_recordBytes, 1)),
      m_bytes(m_capacity * m_recordBytes) {}

std::uint64_t RecordBuffer::Keep() {
  return ++m_records == m_capacity ? Flush() : 0;
}

std::uint64_t RecordBuffer::Flush() {
  if (m_records == 0) {
    return 0;
  }
  const std::size_t records = m_records;
  m_records = 0;
  return m_writer.AddBlock(m_type, m_item, static_cast<std::uint32_t>(records),
                           Bytes(m_bytes).first(records * m_recordBytes));
}

}  // namespace Qen
