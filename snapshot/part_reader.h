// Reads one part. Its construction reads everything but the contents of the blocks, and checks that it is whole; a
// block's content is checked when it is read. What is wrong is refused, with file and cause.
//
// The file is not kept open: a chain may have more parts than a process may have files.
#pragma once

#include "snapshot/manifest.h"

namespace Qen {

class PartReader {
 public:
  struct Block {
    BlockHeader header;
    std::uint64_t place = 0;  // of its content
  };

  explicit PartReader(std::string path);

  const std::string& Path() const noexcept { return m_path; }
  const FileHeader& Header() const noexcept { return m_header; }
  std::uint32_t Part() const noexcept { return m_part; }
  const std::vector<ItemDescription>& Items() const noexcept { return m_items; }
  const std::vector<ItemTotals>& Totals() const noexcept { return m_totals; }
  const PartSeal& Seal() const noexcept { return m_seal; }
  // But for END.
  const std::vector<Block>& Blocks() const noexcept { return m_blocks; }

  // Refuses a file that is not this part of this snapshot.
  void CheckBelongs(const Manifest& manifest, std::uint32_t part) const;

  // The part, opened again, for Read.
  File Open() const { return File(m_path, File::How::READ); }
  // The records of a block. The two buffers are the caller's, and hold what is answered. Any thread.
  Bytes Read(const File& file, const Block& block, std::vector<unsigned char>& stored,
             std::vector<unsigned char>& raw) const;

 private:
  [[noreturn]] void RefuseFile(const char* cause) const { throw Failure(KAVO_REFUSED_FILE, Path() + ": " + cause); }
  void ReadHeader(const File& file, RunningChecksum& checksum);
  void CheckBlock(const BlockHeader& header, std::uint64_t room) const;

  std::string m_path;
  FileHeader m_header;
  std::uint32_t m_part = 0;
  std::vector<ItemDescription> m_items;
  std::vector<ItemTotals> m_totals;
  std::vector<Block> m_blocks;
  PartSeal m_seal;
  std::uint64_t m_firstBlock = 0;
};

}  // namespace Qen
