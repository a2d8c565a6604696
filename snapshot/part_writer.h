// Writes one part: header and descriptions, blocks of records from any number of threads, an END block with what there
// is of each item, and a checksum over everything but the blocks' contents, whose own are in their headers.
//
// A thread hashes and compresses its block by itself; its place in the file is taken under the lock, and the bytes are
// written there without it.
#pragma once

#include <mutex>

#include "platform/mutex.h"
#include "snapshot/checksum.h"
#include "snapshot/file.h"
#include "snapshot/format.h"

namespace Qen {

// A complete file, as the manifest knows it.
struct PartSeal {
  std::uint64_t bytes = 0;
  std::uint64_t checksum = 0;
  bool operator==(const PartSeal&) const = default;
};

class PartWriter {
 public:
  // `level`: 0 does not compress.
  PartWriter(const std::string& path, const FileHeader& header, std::uint32_t part, std::vector<ItemDescription> items,
             int level);
  PartWriter(const PartWriter&) = delete;
  PartWriter& operator=(const PartWriter&) = delete;
  ~PartWriter();  // removes a file that was not finished

  const std::vector<ItemDescription>& Items() const noexcept { return m_items; }
  // Any thread. Answers the bytes that the file has grown by.
  std::uint64_t AddBlock(BlockType type, std::uint32_t item, std::uint32_t records, Bytes raw);
  void SetSteps(std::uint32_t item, std::uint64_t steps) noexcept { m_totals[item].steps = steps; }
  // Completes the file and brings it to the disk. No block is being added.
  PartSeal Finish();

 private:
  File m_file;
  const std::vector<ItemDescription> m_items;
  const int m_level;
  bool m_finished = false;
  Mutex m_mutex;  // guards the rest
  RunningChecksum m_checksum;
  std::uint64_t m_end = 0;
  std::vector<ItemTotals> m_totals;
};

// Records of one type and item, gathered to blocks by one thread.
class RecordBuffer {
 public:
  RecordBuffer(PartWriter& writer, BlockType type, std::uint32_t item);
  // Room for one record more, aligned to 4 bytes where records have floats. Keep makes it part of the block, and
  // answers the bytes that were written to the file.
  unsigned char* Next() noexcept { return m_bytes.data() + m_records * m_recordBytes; }
  std::uint64_t Keep();
  std::uint64_t Flush();

 private:
  PartWriter& m_writer;
  const BlockType m_type;
  const std::uint32_t m_item;
  const std::size_t m_recordBytes;
  const std::size_t m_capacity;
  std::size_t m_records = 0;
  std::vector<unsigned char> m_bytes;
};

}  // namespace Qen
