// An embedding as something that a snapshot saves, beside every call on it.
//
// Threads of the embedding's pool take batches of the base's walk in turn, and each gathers records in buffers of its
// own: no second copy of a table anywhere. A row that was taken bears the number of this save in its head, so that a
// key that the walk gives again, since it has moved, stands in the file once.
#pragma once

#include "embedding/embedding.h"
#include "snapshot/save.h"
#include "snapshot/workers.h"

namespace Qen {

class EmbeddingSource : public ItemSource {
 public:
  EmbeddingSource(std::string name, Embedding& embedding);
  ~EmbeddingSource() override;

  ItemDescription Description() const override { return m_description; }
  // Takes cut and number of the save. No other save of the embedding may be under way until this object is gone.
  void Begin(const FileHeader& header) override;
  std::uint64_t ExpectedBytes() const override;
  void Write(PartWriter& writer, std::uint32_t item, Progress& progress) override;
  void Committed(const SaveIdentity& identity) noexcept override;

 private:
  struct Buffers;

  void TakeElement(const KavoHtBatchElement& element, std::uint64_t tag, Buffers& buffers) const;

  const ItemDescription m_description;
  Embedding& m_embedding;
  bool m_begun = false;
  SnapshotKind m_kind = SnapshotKind::FULL;
  std::uint64_t m_cut = 0;    // of this save
  std::uint64_t m_since = 0;  // of the save before it: an increment takes rows with this number or a later one
  unsigned m_mark = 0;
};

// The threads of an embedding.
Workers WorkersOf(const Embedding& embedding);

}  // namespace Qen
