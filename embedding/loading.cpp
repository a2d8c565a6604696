#include "embedding/loading.h"

#include "embedding/arguments.h"
#include "embedding/row.h"
#include "embedding/saving.h"
#include "snapshot/table_items.h"

namespace Qen {

// Up to a block of records that belong to the shard.
struct EmbeddingTarget::Group {
  std::size_t num = 0;
  Tag tags[KeyTables::BLOCK];
  const unsigned char* records[KeyTables::BLOCK];
  unsigned counts[KeyTables::BLOCK];
  unsigned char* rows[KeyTables::BLOCK];
};

namespace {

std::uint64_t StepOf(const unsigned char* record) noexcept {
  std::uint64_t step = 0;
  std::memcpy(&step, record + sizeof(long), sizeof(step));
  return step;
}

unsigned CountOf(const ItemDescription& item, const unsigned char* record) noexcept {
  unsigned count = 0;
  if (item.hasCounts != 0) {
    std::memcpy(&count, record + item.CountOffset(), sizeof(count));
  }
  return count;
}

KavoEmbeddingOptions StartOf(const ItemDescription& item) noexcept {
  KavoEmbeddingOptions start{};
  start.initialiser = item.initialiser;
  start.startA = item.startA;
  start.startB = item.startB;
  start.initialAccumulator = item.initialAccumulator;
  start.seed = item.seed;
  return start;
}

bool IsEmpty(const KeyTables& tables) {
  for (unsigned table = 0; table < tables.Num(); ++table) {
    unsigned long long keys = 0;
    unsigned valueLen = 0;
    CheckBase(KavoGetHtSizeAndVl(tables.Id(table), &keys, &valueLen, false), "KavoGetHtSizeAndVl");
    if (keys != 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

EmbeddingTarget::EmbeddingTarget(std::string name, Embedding& embedding, unsigned shard, unsigned shards, Wins wins)
    : ItemTarget(std::move(name)), m_embedding(embedding), m_shard(shard), m_shards(shards), m_wins(wins) {
  m_spare = embedding.MakeSpare();
  if (wins == Wins::FIRST && !IsEmpty(embedding.Tables())) {
    Fail(KAVO_INVALID, "%s: the embedding is not empty", Name().c_str());
  }
  SnapshotState& state = embedding.Snapshots();
  if (!state.TryEnter()) {
    Fail(KAVO_BUSY, "%s: is being saved or loaded", Name().c_str());
  }
  if (wins == Wins::LAST) {
    m_shard = state.shard;
    m_shards = state.shards;
  }
}

EmbeddingTarget::~EmbeddingTarget() {
  m_embedding.Snapshots().Leave();
}

std::string EmbeddingTarget::Mismatch(const ItemDescription& item, const ItemTotals& totals) const {
  const auto number = [](std::uint64_t value) { return std::to_string(value); };
  const KavoEmbeddingOptions options = m_embedding.Options();
  if (item.type != ItemType::EMBEDDING) {
    return "is a table, not an embedding";
  }
  if (item.dim != options.dim) {
    return "has dim " + number(item.dim) + ", and the embedding " + number(options.dim);
  }
  if (m_embedding.Trains() && (item.optimiser != options.optimiser || item.Floats() != m_embedding.Layout().Floats())) {
    return "has optimiser " + number(item.optimiser) + ", and the embedding " + number(options.optimiser);
  }
  if (totals.steps >= RowHead::MAX_STEP) {
    return "has a number of steps that cannot be";
  }
  try {
    CheckStart(StartOf(item));
  } catch (const Failure& failure) {
    return std::string("its ") + failure.what();
  }
  return "";
}

bool EmbeddingTarget::CanBe(BlockType type, const ItemDescription& item, Bytes records) const {
  const std::size_t recordBytes = item.RecordBytes(type);
  for (std::size_t at = 0; type == BlockType::ROWS && at < records.size(); at += recordBytes) {
    const std::uint64_t step = StepOf(&records[at]);
    if (step == 0 || step > RowHead::MAX_STEP) {
      return false;
    }
  }
  return true;
}

void EmbeddingTarget::Install(BlockType type, const ItemDescription& item, Bytes records) {
  const std::size_t recordBytes = item.RecordBytes(type);
  Group group;
  for (std::size_t at = 0; at < records.size(); at += recordBytes) {
    long key = 0;
    std::memcpy(&key, &records[at], sizeof(key));
    const Tag tag = TagOf(key);
    if (OwnerOf(tag, m_shards) == m_shard) {
      group.tags[group.num] = tag;
      group.records[group.num++] = &records[at];
    }
    if (group.num == KeyTables::BLOCK) {
      InstallGroup(type, item, group);
      group.num = 0;
    }
  }
  InstallGroup(type, item, group);
}

void EmbeddingTarget::InstallGroup(BlockType type, const ItemDescription& item, Group& group) {
  KeyTables& tables = m_embedding.Tables();
  if (type == BlockType::ROWS) {
    InstallRows(item, group);
  } else if (type == BlockType::COUNTED) {
    for (std::size_t i = 0; tables.Made().admission > 1 && i < group.num; ++i) {
      unsigned count = 0;
      std::memcpy(&count, group.records[i] + sizeof(long), sizeof(count));
      const int status = tables.Count(group.tags[i], count);
      if (status != KAVO_INVALID) {  // there as a row
        CheckBase(status, "KavoInsert");
      }
    }
  } else if (m_wins == Wins::FIRST) {
    // Stands for the key, so that records of older snapshots do not count.
    std::fill_n(group.counts, group.num, 0U);
    CheckBase(tables.Offer(group.tags, group.num, group.counts, group.rows), "KavoBatchOffer");
    for (std::size_t i = 0; i < group.num; ++i) {
      if (group.rows[i] != nullptr) {
        ForgetRow(group.rows[i], [](RowHead::Word seen) { return seen == 0; });
      }
    }
  } else {
    CheckBase(tables.Find(group.tags, group.num, group.rows), "KavoBatchLookup");
    for (std::size_t i = 0; i < group.num; ++i) {
      if (group.rows[i] != nullptr && ForgetRow(group.rows[i], RowHead::HasRow)) {
        m_embedding.CountRows(0, 1);
      }
    }
  }
}

void EmbeddingTarget::StoreRow(unsigned char* row, const ItemDescription& item, const unsigned char* record) const {
  const RowLayout& layout = m_embedding.Layout();
  StoreFloats(reinterpret_cast<const float*>(record + item.ValueOffset()), RowLayout::Weights(row), layout.Floats());
  if (layout.IsCounted()) {
    // Relaxed: a count of its own.
    AtomicRef<unsigned>(layout.Count(row)).store(CountOf(item, record), std::memory_order_relaxed);
  }
}

// Begins with an offer that counts nothing: a new key gets its row, a key that is only counted keeps none.
void EmbeddingTarget::InstallRows(const ItemDescription& item, Group& group) {
  KeyTables& tables = m_embedding.Tables();
  std::fill_n(group.counts, group.num, 0U);
  CheckBase(tables.Offer(group.tags, group.num, group.counts, group.rows), "KavoBatchOffer");
  if (m_wins == Wins::FIRST) {
    InstallFirst(item, group);
    return;
  }
  for (std::size_t i = 0; i < group.num; ++i) {
    const unsigned char* const record = group.records[i];
    if (group.rows[i] == nullptr) {
      // As often as it was there, and as admission asks for here.
      const unsigned enough = std::max(CountOf(item, record), tables.Made().admission);
      CheckBase(tables.Offer(&group.tags[i], 1, &enough, &group.rows[i]), "KavoBatchOffer");
    }
    RowHead head(group.rows[i]);
    RowHead::Word seen = 0;
    BeginWrite(head, seen, [](RowHead::Word) { return true; });
    m_embedding.CountRows(RowHead::HasRow(seen) ? 0 : 1, 0);
    StoreRow(group.rows[i], item, record);
    head.EndWrite(seen, StepOf(record));
  }
}

void EmbeddingTarget::InstallFirst(const ItemDescription& item, const Group& group) {
  Tag counted[KeyTables::BLOCK];
  unsigned counts[KeyTables::BLOCK];
  unsigned char* rows[KeyTables::BLOCK];
  std::size_t num = 0;
  for (std::size_t i = 0; i < group.num; ++i) {
    if (group.rows[i] == nullptr) {
      continue;  // only counted, in a newer snapshot
    }
    RowHead head(group.rows[i]);
    RowHead::Word seen = 0;
    if (!BeginWrite(head, seen, [](RowHead::Word word) { return word == 0; })) {
      continue;  // of a newer snapshot, or forgotten there
    }
    StoreRow(group.rows[i], item, group.records[i]);
    head.EndWrite(seen, StepOf(group.records[i]));
    m_embedding.CountRows(1, 0);
    counts[num] = CountOf(item, group.records[i]);
    if (counts[num] != 0) {
      counted[num++] = group.tags[i];
    }
  }
  if (m_embedding.Tables().Made().admission > 1) {
    CheckBase(m_embedding.Tables().Offer(counted, num, counts, rows), "KavoBatchOffer");
  }
}

void EmbeddingTarget::Finish(const SaveIdentity& identity, const Manifest::Item& item) {
  SnapshotState& state = m_embedding.Snapshots();
  if (m_wins == Wins::FIRST) {
    m_embedding.SetStart(StartOf(item.description));
    state.cut = item.totals.steps + 1;
  }
  m_embedding.Clock().PassSteps(item.totals.steps);
  state.last = identity;
  state.shard = m_shard;
  state.shards = m_shards;
}

void EmbeddingTarget::GiveUp() noexcept {
  if (m_wins == Wins::FIRST) {
    m_embedding.Replace(std::move(m_spare));
    // What could not be made now is made when the first key comes.
    static_cast<void>(m_embedding.Tables().MakeFirst());
  }
}

namespace {

Workers MostWorkers(const std::vector<NamedItem>& items) {
  Workers most;
  for (const NamedItem& item : items) {
    if (item.embedding != nullptr && item.embedding->Pool().Threads() > most.threads) {
      most = WorkersOf(*item.embedding);
    }
  }
  return most;
}

// The targets that are embeddings, each with what the snapshot has of it.
template <class Targets>
void FinishAll(const Targets& targets, const Manifest& manifest) {
  for (EmbeddingTarget* target : targets) {
    target->Finish(manifest.header.identity, *manifest.Find(target->Name()));
  }
}

}  // namespace

void LoadSnapshot(const std::string& folder, std::uint64_t number, const std::vector<NamedItem>& items, unsigned shard,
                  unsigned shards, Progress& progress) {
  ItemTargets targets;
  std::vector<EmbeddingTarget*> embeddings;
  for (const NamedItem& item : items) {
    if (item.embedding == nullptr) {
      targets.push_back(std::make_unique<TableTarget>(item.name, item.tableId, shard, shards));
    } else {
      auto target =
          std::make_unique<EmbeddingTarget>(item.name, *item.embedding, shard, shards, EmbeddingTarget::Wins::FIRST);
      embeddings.push_back(target.get());
      targets.push_back(std::move(target));
    }
  }
  const Folder from(folder);
  const Workers workers = MostWorkers(items);
  const std::vector<Snapshot> chain =
      from.ReadNewest(number, [&](std::uint64_t found) { return ExamineParts(from, ReadChain(from, found)); });
  progress.Expect(2 * BlockBytes(chain));
  VerifyChain(chain, targets, workers, progress);
  try {
    InstallChain(chain, targets, workers, progress, LoadOrder::NEWEST_FIRST);
    FinishAll(embeddings, chain.front().manifest);
  } catch (...) {
    for (EmbeddingTarget* target : embeddings) {
      target->GiveUp();
    }
    throw;
  }
}

std::uint64_t UpdateFromSnapshots(const std::string& folder, std::uint64_t number, const std::vector<NamedItem>& items,
                                  Progress& progress) {
  ItemTargets targets;
  std::vector<EmbeddingTarget*> embeddings;
  SaveIdentity at;
  for (const NamedItem& item : items) {
    auto target = std::make_unique<EmbeddingTarget>(item.name, *item.embedding, 0, 1, EmbeddingTarget::Wins::LAST);
    const SaveIdentity& last = item.embedding->Snapshots().last;
    if (last == SaveIdentity{} || (!embeddings.empty() && last != at)) {
      Fail(KAVO_INVALID, "%s: was not loaded, or from another snapshot than the first item", item.name.c_str());
    }
    at = last;
    embeddings.push_back(target.get());
    targets.push_back(std::move(target));
  }
  const Folder from(folder);
  if (embeddings.empty()) {
    return number;
  }
  if (number == 0) {
    number = NewestOfChain(from, at);
  }
  if (number == at.number) {
    return at.number;
  }
  const std::vector<Snapshot> chain = ExamineParts(from, ReadChain(from, number, &at));
  const Workers workers = MostWorkers(items);
  progress.Expect(2 * BlockBytes(chain));
  VerifyChain(chain, targets, workers, progress);
  for (EmbeddingTarget* target : embeddings) {
    target->LeaveChain();
  }
  InstallChain(chain, targets, workers, progress, LoadOrder::OLDEST_FIRST);
  FinishAll(embeddings, chain.front().manifest);
  return number;
}

}  // namespace Qen
