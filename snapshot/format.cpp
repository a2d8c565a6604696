#include "snapshot/format.h"

namespace Qen {
namespace {

constexpr std::size_t MOST_NAME_BYTES = 255;
constexpr std::uint32_t MOST_DIM = 65'536;

}  // namespace

bool ItemDescription::CanFollow(const ItemDescription& before) const noexcept {
  return name == before.name && type == before.type && valueBytes == before.valueBytes && dim == before.dim &&
         stateFloats == before.stateFloats && optimiser == before.optimiser;
}

std::size_t ItemDescription::RecordBytes(BlockType block) const noexcept {
  switch (block) {
    case BlockType::ROWS:
      return ValueOffset() + (type == ItemType::EMBEDDING ? Floats() * sizeof(float) : valueBytes);
    case BlockType::COUNTED:
      return 12;
    default:
      return 8;
  }
}

void ItemDescription::Put(ByteWriter& to) const {
  to.Put(static_cast<std::uint32_t>(name.size()));
  to.Put(name.data(), name.size());
  to.Put(static_cast<std::uint32_t>(type));
  to.Put(valueBytes);
  to.Put(dim);
  to.Put(stateFloats);
  to.Put(hasCounts);
  to.Put(optimiser);
  to.Put(admission);
  to.Put(initialiser);
  to.Put(startA);
  to.Put(startB);
  to.Put(initialAccumulator);
  to.Put(seed);
}

ItemDescription ItemDescription::Take(ByteReader& from) {
  ItemDescription item;
  const auto nameBytes = from.Take<std::uint32_t>();
  if (nameBytes == 0 || nameBytes > MOST_NAME_BYTES) {
    from.RefuseFile("an item's name is too long or empty");
  }
  const Bytes name = from.Take(nameBytes);
  item.name.assign(name.begin(), name.end());
  const auto type = from.Take<std::uint32_t>();
  item.type = static_cast<ItemType>(type);
  item.valueBytes = from.Take<std::uint32_t>();
  item.dim = from.Take<std::uint32_t>();
  item.stateFloats = from.Take<std::uint32_t>();
  item.hasCounts = from.Take<std::uint32_t>();
  item.optimiser = from.Take<std::uint32_t>();
  item.admission = from.Take<std::uint32_t>();
  item.initialiser = from.Take<std::uint32_t>();
  item.startA = from.Take<float>();
  item.startB = from.Take<float>();
  item.initialAccumulator = from.Take<float>();
  item.seed = from.Take<std::uint64_t>();
  const bool rowsCanBe = item.dim >= 1 && item.dim <= MOST_DIM && item.stateFloats <= 2 * item.dim &&
                         item.hasCounts <= 1 && item.valueBytes == 0;
  const bool valuesCanBe = item.valueBytes >= 1 && item.dim == 0 && item.stateFloats == 0 && item.hasCounts == 0;
  if (type > static_cast<std::uint32_t>(ItemType::FILTER_TABLE) ||
      !(item.type == ItemType::EMBEDDING ? rowsCanBe : valuesCanBe)) {
    from.RefuseFile("an item's description cannot be");
  }
  return item;
}

void ItemTotals::Put(ByteWriter& to) const {
  to.Put(rows);
  to.Put(counted);
  to.Put(removed);
  to.Put(steps);
}

ItemTotals ItemTotals::Take(ByteReader& from) {
  ItemTotals totals;
  totals.rows = from.Take<std::uint64_t>();
  totals.counted = from.Take<std::uint64_t>();
  totals.removed = from.Take<std::uint64_t>();
  totals.steps = from.Take<std::uint64_t>();
  return totals;
}

void FileHeader::Put(ByteWriter& to, const char* magic) const {
  to.Put(magic, MAGIC_BYTES);
  to.Put(FORMAT_VERSION);
  to.Put(static_cast<std::uint32_t>(kind));
  to.Put(identity.number);
  to.Put(identity.id);
  to.Put(follows.number);
  to.Put(follows.id);
  to.Put(parts);
}

FileHeader FileHeader::Take(ByteReader& from, const char* magic) {
  const Bytes found = from.Take(MAGIC_BYTES);
  if (std::memcmp(found.data(), "KAVOSNAP", MAGIC_BYTES) == 0) {
    from.RefuseFile("is a file of the example that wrote snapshots before this library did: not of this format");
  }
  if (std::memcmp(found.data(), magic, MAGIC_BYTES) != 0) {
    from.RefuseFile("does not begin as such a file does");
  }
  const auto version = from.Take<std::uint32_t>();
  if (version > FORMAT_VERSION) {
    from.RefuseFile(("version " + std::to_string(version) + " is newer than this library").c_str());
  }
  FileHeader header;
  const auto kind = from.Take<std::uint32_t>();
  header.kind = static_cast<SnapshotKind>(kind);
  header.identity.number = from.Take<std::uint64_t>();
  header.identity.id = from.Take<std::uint64_t>();
  header.follows.number = from.Take<std::uint64_t>();
  header.follows.id = from.Take<std::uint64_t>();
  header.parts = from.Take<std::uint32_t>();
  const bool followsCanBe = header.kind == SnapshotKind::FULL
                                ? header.follows == SaveIdentity{}
                                : header.follows.number >= 1 && header.follows.number < header.identity.number;
  if (version == 0 || kind > static_cast<std::uint32_t>(SnapshotKind::INCREMENT) || header.identity.number == 0 ||
      header.parts == 0 || !followsCanBe) {
    from.RefuseFile("its header cannot be");
  }
  return header;
}

void BlockHeader::Put(ByteWriter& to) const {
  to.Put(static_cast<std::uint32_t>(type));
  to.Put(item);
  to.Put(records);
  to.Put(static_cast<std::uint32_t>(codec));
  to.Put(rawBytes);
  to.Put(storedBytes);
  to.Put(checksum);
}

BlockHeader BlockHeader::Take(ByteReader& from) {
  BlockHeader header;
  header.type = static_cast<BlockType>(from.Take<std::uint32_t>());
  header.item = from.Take<std::uint32_t>();
  header.records = from.Take<std::uint32_t>();
  header.codec = static_cast<Codec>(from.Take<std::uint32_t>());
  header.rawBytes = from.Take<std::uint64_t>();
  header.storedBytes = from.Take<std::uint64_t>();
  header.checksum = from.Take<std::uint64_t>();
  return header;
}

}  // namespace Qen
