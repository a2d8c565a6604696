// What the files of a snapshot consist of; docs/snapshot-format.md describes every byte.
#pragma once

#include <string>
#include <vector>

#include "snapshot/bytes.h"
#include "snapshot/compression.h"

namespace Qen {

inline constexpr std::uint32_t FORMAT_VERSION = 1;
inline constexpr std::size_t MAGIC_BYTES = 8;
inline constexpr char PART_MAGIC[] = "KAVOPART";
inline constexpr char MANIFEST_MAGIC[] = "KAVOMANI";

// Names one save: `number` counts a folder's snapshots, `id` is drawn at random for each attempt. Both 0: none.
struct SaveIdentity {
  std::uint64_t number = 0;
  std::uint64_t id = 0;
  bool operator==(const SaveIdentity&) const = default;
};

enum class SnapshotKind : std::uint32_t { FULL = 0, INCREMENT = 1 };
enum class ItemType : std::uint32_t { EMBEDDING = 0, BASIC_TABLE = 1, FILTER_TABLE = 2 };
enum class BlockType : std::uint32_t { ROWS = 1, COUNTED = 2, REMOVED = 3, END = 4 };

// One named thing that was saved.
struct ItemDescription {
  std::string name;
  ItemType type = ItemType::EMBEDDING;
  std::uint32_t valueBytes = 0;  // tables: of a value. The rest: embeddings
  std::uint32_t dim = 0;
  std::uint32_t stateFloats = 0;  // of a row, behind its `dim` weights
  std::uint32_t hasCounts = 0;    // 1: rows have the number of their occurrences
  std::uint32_t optimiser = 0;
  std::uint32_t admission = 0;
  std::uint32_t initialiser = 0;
  float startA = 0;
  float startB = 0;
  float initialAccumulator = 0;
  std::uint64_t seed = 0;

  bool operator==(const ItemDescription&) const = default;
  // Whether records of one can follow records of the other in a chain.
  bool CanFollow(const ItemDescription& before) const noexcept;
  bool IsCounted() const noexcept { return type == ItemType::FILTER_TABLE || hasCounts != 0; }
  std::size_t Floats() const noexcept { return std::size_t{dim} + stateFloats; }
  // Offsets in a record of ROWS: key, [step of an embedding's row], [count], floats or value.
  std::size_t CountOffset() const noexcept { return type == ItemType::EMBEDDING ? 16 : 8; }
  std::size_t ValueOffset() const noexcept { return CountOffset() + (IsCounted() ? 4 : 0); }
  std::size_t RecordBytes(BlockType block) const noexcept;

  void Put(ByteWriter& to) const;
  static ItemDescription Take(ByteReader& from);
};

// What a part, or all parts, have of an item.
struct ItemTotals {
  std::uint64_t rows = 0;
  std::uint64_t counted = 0;
  std::uint64_t removed = 0;
  std::uint64_t steps = 0;  // embeddings: taken when the part was complete

  bool operator==(const ItemTotals&) const = default;
  std::uint64_t& Of(BlockType block) noexcept {
    return block == BlockType::ROWS ? rows : block == BlockType::COUNTED ? counted : removed;
  }
  void Put(ByteWriter& to) const;
  static ItemTotals Take(ByteReader& from);
};

// What every file of a save begins with.
struct FileHeader {
  SnapshotKind kind = SnapshotKind::FULL;
  SaveIdentity identity;
  SaveIdentity follows;  // of an increment
  std::uint32_t parts = 0;

  bool operator==(const FileHeader&) const = default;
  void Put(ByteWriter& to, const char* magic) const;
  // Refuses what is foreign, newer, or cannot be.
  static FileHeader Take(ByteReader& from, const char* magic);
};

struct BlockHeader {
  BlockType type = BlockType::END;
  std::uint32_t item = 0;
  std::uint32_t records = 0;
  Codec codec = Codec::RAW;
  std::uint64_t rawBytes = 0;
  std::uint64_t storedBytes = 0;
  std::uint64_t checksum = 0;  // of the stored bytes

  static constexpr std::size_t BYTES = 40;
  void Put(ByteWriter& to) const;
  static BlockHeader Take(ByteReader& from);
};

// A block is closed when it has reached this, or would not hold another record below the next.
inline constexpr std::size_t BLOCK_BYTES = std::size_t{1} << 20;
// Blocks with more raw bytes are not compressed: so whoever reads one gets room for no more than that, or for what the
// file does hold, whatever its header says.
inline constexpr std::size_t MOST_COMPRESSED_BYTES = std::size_t{4} << 20;

}  // namespace Qen
