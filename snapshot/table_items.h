// Tables of the base as items of a snapshot. Nobody inserts or writes values meanwhile.
#pragma once

#include "snapshot/load.h"
#include "snapshot/save.h"

namespace Qen {

// A full save takes all entries, an increment those whose export state is 0; once the snapshot exists, they are marked.
class TableSource : public ItemSource {
 public:
  TableSource(std::string name, unsigned tableId);

  ItemDescription Description() const override { return m_description; }
  void Begin(const FileHeader& header) override { m_kind = header.kind; }
  std::uint64_t ExpectedBytes() const override;
  void Write(PartWriter& writer, std::uint32_t item, Progress& progress) override;
  void Committed(const SaveIdentity& identity) noexcept override;

 private:
  ItemDescription m_description;
  unsigned m_table;
  std::uint64_t m_entries = 0;
  SnapshotKind m_kind = SnapshotKind::FULL;
};

// Takes the first record of a key; entries are marked as exported. `shard` of `shards`, by the upper half of the key.
class TableTarget : public ItemTarget {
 public:
  TableTarget(std::string name, unsigned tableId, unsigned shard, unsigned shards);

  std::string Mismatch(const ItemDescription& item, const ItemTotals& totals) const override;
  bool CanBe(BlockType type, const ItemDescription& item, Bytes records) const override;
  void Install(BlockType type, const ItemDescription& item, Bytes records) override;

 private:
  ItemDescription m_description;
  unsigned m_table;
  unsigned m_shard;
  unsigned m_shards;
};

}  // namespace Qen
