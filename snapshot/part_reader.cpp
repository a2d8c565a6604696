#include "snapshot/part_reader.h"

#include <algorithm>

namespace Qen {
namespace {

// Header, number of the part, number of items, length of all that with the descriptions.
constexpr std::size_t FIXED_BYTES = MAGIC_BYTES + 4 + 4 + 4 * 8 + 4 + 3 * 4;

}  // namespace

PartReader::PartReader(std::string path) : m_path(std::move(path)) {
  const File file = Open();
  const std::uint64_t size = file.Size();
  RunningChecksum checksum;
  ReadHeader(file, checksum);
  std::vector<ItemTotals> found(m_items.size());
  for (std::uint64_t place = m_firstBlock;;) {
    unsigned char bytes[BlockHeader::BYTES];
    file.ReadAt(place, bytes, sizeof(bytes));
    checksum.Add(bytes);
    place += sizeof(bytes);
    ByteReader from(bytes, Path());
    const Block block{BlockHeader::Take(from), place};
    CheckBlock(block.header, size - place);
    place += block.header.storedBytes;
    if (block.header.type != BlockType::END) {
      found[block.header.item].Of(block.header.type) += block.header.records;
      m_blocks.push_back(block);
      continue;
    }
    std::vector<unsigned char> stored;
    std::vector<unsigned char> raw;
    ByteReader totals(Read(file, block, stored, raw), Path());
    for (ItemTotals& item : found) {
      m_totals.push_back(ItemTotals::Take(totals));
      item.steps = m_totals.back().steps;
    }
    file.ReadAt(place, &m_seal.checksum, sizeof(m_seal.checksum));
    m_seal.bytes = place + sizeof(m_seal.checksum);
    break;
  }
  if (m_seal.checksum != checksum.Value()) {
    RefuseFile("is damaged: its checksum does not match");
  }
  if (m_seal.bytes != size) {
    RefuseFile("is longer than it should be");
  }
  if (m_totals != found) {
    RefuseFile("the numbers of its records do not match");
  }
}

void PartReader::ReadHeader(const File& file, RunningChecksum& checksum) {
  const std::uint64_t size = file.Size();
  std::vector<unsigned char> bytes(std::min<std::uint64_t>(size, FIXED_BYTES));
  file.ReadAt(0, bytes.data(), bytes.size());
  ByteReader fixed(bytes, Path());
  m_header = FileHeader::Take(fixed, PART_MAGIC);
  m_part = fixed.Take<std::uint32_t>();
  const auto items = fixed.Take<std::uint32_t>();
  const auto length = fixed.Take<std::uint32_t>();
  if (m_part >= m_header.parts || length < FIXED_BYTES) {
    RefuseFile("its header cannot be");
  }
  if (length > size) {
    RefuseFile("is cut off");
  }
  bytes.resize(length);
  file.ReadAt(0, bytes.data(), bytes.size());
  checksum.Add(bytes);
  ByteReader descriptions(Bytes(bytes).subspan(FIXED_BYTES), Path());
  for (std::uint32_t i = 0; i < items; ++i) {
    m_items.push_back(ItemDescription::Take(descriptions));
  }
  if (descriptions.Left() != 0) {
    RefuseFile("its header cannot be");
  }
  m_firstBlock = length;
}

// Before anything is allocated for it. `room`: the bytes of the file behind the header.
void PartReader::CheckBlock(const BlockHeader& header, std::uint64_t room) const {
  if (header.storedBytes > room) {
    RefuseFile("is cut off");
  }
  const bool isEnd = header.type == BlockType::END;
  const bool typeCanBe =
      isEnd || header.type == BlockType::ROWS || header.type == BlockType::COUNTED || header.type == BlockType::REMOVED;
  if (!typeCanBe || header.item >= m_items.size() + (isEnd ? 1 : 0) || (isEnd && header.records != m_items.size())) {
    RefuseFile("a block's header cannot be");
  }
  const std::size_t recordBytes = isEnd ? 4 * sizeof(std::uint64_t) : m_items[header.item].RecordBytes(header.type);
  const bool bytesCanBe = header.codec == Codec::RAW    ? header.storedBytes == header.rawBytes
                          : header.codec == Codec::ZSTD ? header.rawBytes <= MOST_COMPRESSED_BYTES
                                                        : false;
  if (!bytesCanBe || header.rawBytes != std::uint64_t{header.records} * recordBytes) {
    RefuseFile("a block's header cannot be");
  }
}

Bytes PartReader::Read(const File& file, const Block& block, std::vector<unsigned char>& stored,
                       std::vector<unsigned char>& raw) const {
  stored.resize(block.header.storedBytes);
  file.ReadAt(block.place, stored.data(), stored.size());
  if (Checksum(stored) != block.header.checksum) {
    RefuseFile("is damaged: a block's checksum does not match");
  }
  if (block.header.codec == Codec::RAW) {
    return stored;
  }
  if (!HasCompression()) {
    RefuseFile("is compressed, and this build of the library has no zstd");
  }
  raw.resize(block.header.rawBytes);
  if (!Decompress(stored, raw)) {
    RefuseFile("is damaged: a block cannot be decompressed");
  }
  return raw;
}

void PartReader::CheckBelongs(const Manifest& manifest, std::uint32_t part) const {
  if (m_header != manifest.header || m_part != part || m_seal != manifest.parts[part]) {
    RefuseFile("is not the file that the manifest names");
  }
  if (m_items.size() != manifest.items.size() ||
      !std::equal(m_items.begin(), m_items.end(), manifest.items.begin(),
                  [](const ItemDescription& item, const Manifest::Item& named) { return item == named.description; })) {
    RefuseFile("has other items than the manifest");
  }
}

}  // namespace Qen
