// An embedding as something that a snapshot is loaded into, and the two calls that load.
#pragma once

#include "embedding/embedding.h"
#include "snapshot/load.h"

namespace Qen {

// What a caller names: an embedding, or where that is null a table of the base.
struct NamedItem {
  std::string name;
  Embedding* embedding;
  unsigned tableId;
};

class EmbeddingTarget : public ItemTarget {
 public:
  // FIRST: the embedding was empty; the first record of a key counts. LAST: beside other calls; the last one does, and
  // the shard is the one that was loaded.
  enum class Wins { FIRST, LAST };
  EmbeddingTarget(std::string name, Embedding& embedding, unsigned shard, unsigned shards, Wins wins);
  ~EmbeddingTarget() override;

  std::string Mismatch(const ItemDescription& item, const ItemTotals& totals) const override;
  bool CanBe(BlockType type, const ItemDescription& item, Bytes records) const override;
  void Install(BlockType type, const ItemDescription& item, Bytes records) override;

  // Is about to install beside other calls: what they write is in no snapshot that an increment could follow, whatever
  // the number of its step.
  void LeaveChain() noexcept { m_embedding.Snapshots().cut = 0; }
  // All is installed: the embedding stands at this snapshot now.
  void Finish(const SaveIdentity& identity, const Manifest::Item& item);
  // Some is installed: an embedding that was empty is empty again.
  void GiveUp() noexcept;

 private:
  struct Group;

  void InstallGroup(BlockType type, const ItemDescription& item, Group& group);
  void InstallRows(const ItemDescription& item, Group& group);
  void InstallFirst(const ItemDescription& item, const Group& group);
  void StoreRow(unsigned char* row, const ItemDescription& item, const unsigned char* record) const;

  Embedding& m_embedding;
  unsigned m_shard;
  unsigned m_shards;
  const Wins m_wins;
  std::unique_ptr<KeyTables> m_spare;  // for GiveUp, which must not fail
};

void LoadSnapshot(const std::string& folder, std::uint64_t number, const std::vector<NamedItem>& items, unsigned shard,
                  unsigned shards, Progress& progress);
// Answers the number of the snapshot that the embeddings stand at.
std::uint64_t UpdateFromSnapshots(const std::string& folder, std::uint64_t number, const std::vector<NamedItem>& items,
                                  Progress& progress);

}  // namespace Qen
