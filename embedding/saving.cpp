#include "embedding/saving.h"

#include <array>

#include "embedding/row.h"
#include "embedding/table_walk.h"
#include "platform/prefetch.h"

namespace Qen {
namespace {

constexpr std::size_t ELEMENTS_A_BATCH = 1024;
constexpr unsigned MOST_MARK = 255;

template <class Work>
void ForAllElements(const Embedding& embedding, const Work& work) {
  TableWalk walk(embedding.Tables());
  const Workers workers = WorkersOf(embedding);
  try {
    workers.Run(workers.threads, [&](std::size_t) { work(walk); });
  } catch (...) {
    walk.GiveUp();
    throw;
  }
}

ItemDescription Describe(std::string name, const Embedding& embedding) {
  const KavoEmbeddingOptions options = embedding.Options();
  ItemDescription item;
  item.name = std::move(name);
  item.type = ItemType::EMBEDDING;
  item.dim = options.dim;
  item.stateFloats = static_cast<std::uint32_t>(embedding.Layout().Floats() - options.dim);
  item.hasCounts = options.counts != 0 || options.admission > 1 ? 1 : 0;
  item.optimiser = options.optimiser;
  item.admission = options.admission;
  item.initialiser = options.initialiser;
  item.startA = options.startA;
  item.startB = options.startB;
  item.initialAccumulator = options.initialAccumulator;
  item.seed = options.seed;
  return item;
}

// Rows may bear any mark of the last 255 saves: before one comes again, none does.
void ClearMarks(const Embedding& embedding) {
  ForAllElements(embedding, [](TableWalk& walk) {
    std::array<KavoHtBatchElement, ELEMENTS_A_BATCH> elements;
    Tag sign = 0;
    for (std::size_t num = walk.Next(elements, sign); num != 0; num = walk.Next(elements, sign)) {
      for (std::size_t i = 0; i < num; ++i) {
        if (elements[i].value == nullptr) {
          continue;
        }
        RowHead head(elements[i].value);
        RowHead::Word seen = head.Load();
        while (seen != 0 && RowHead::Save(seen) != 0) {
          if (RowHead::IsBeingWritten(seen)) {
            seen = WaitForWriter(head);
          } else {
            head.TryMark(seen, RowHead::WithSave(seen, 0));
          }
        }
      }
    }
  });
}

}  // namespace

Workers WorkersOf(const Embedding& embedding) {
  ThreadPool& pool = embedding.Pool();
  return {pool.Threads(),
          [&pool](std::size_t pieces, const std::function<void(std::size_t)>& piece) { pool.Run(pieces, piece); }};
}

// What one thread gathers.
struct EmbeddingSource::Buffers {
  RecordBuffer rows;
  RecordBuffer counted;
  RecordBuffer removed;
  Progress& progress;
};

EmbeddingSource::EmbeddingSource(std::string name, Embedding& embedding)
    : m_description(Describe(std::move(name), embedding)), m_embedding(embedding) {}

EmbeddingSource::~EmbeddingSource() {
  if (m_begun) {
    m_embedding.Snapshots().Leave();
  }
}

void EmbeddingSource::Begin(const FileHeader& header) {
  SnapshotState& state = m_embedding.Snapshots();
  if (!state.TryEnter()) {
    Fail(KAVO_BUSY, "%s: is being saved or loaded", m_description.name.c_str());
  }
  m_begun = true;
  m_kind = header.kind;
  if (m_kind == SnapshotKind::INCREMENT && (state.cut == 0 || state.last != header.follows)) {
    Fail(KAVO_INVALID, "%s: was not saved to snapshot %llu by this handle, nor loaded from it: save a full one first",
         m_description.name.c_str(), static_cast<unsigned long long>(header.follows.number));
  }
  m_since = state.cut;
  m_cut = m_embedding.Clock().Cut();
  if (state.mark == MOST_MARK) {
    ClearMarks(m_embedding);
    state.mark = 0;
  }
  m_mark = ++state.mark;
}

std::uint64_t EmbeddingSource::ExpectedBytes() const {
  return m_embedding.Rows() * m_description.RecordBytes(BlockType::ROWS);
}

void EmbeddingSource::Write(PartWriter& writer, std::uint32_t item, Progress& progress) {
  ForAllElements(m_embedding, [&](TableWalk& walk) {
    Buffers buffers{RecordBuffer(writer, BlockType::ROWS, item), RecordBuffer(writer, BlockType::COUNTED, item),
                    RecordBuffer(writer, BlockType::REMOVED, item), progress};
    std::array<KavoHtBatchElement, ELEMENTS_A_BATCH> elements;
    Tag sign = 0;
    for (std::size_t num = walk.Next(elements, sign); num != 0; num = walk.Next(elements, sign)) {
      for (std::size_t i = 0; i < num; ++i) {
        if (i + ROWS_AHEAD < num && elements[i + ROWS_AHEAD].value != nullptr) {
          PrefetchForRead(elements[i + ROWS_AHEAD].value);
          PrefetchForRead(elements[i + ROWS_AHEAD].value + 64);
        }
        TakeElement(elements[i], static_cast<Tag>(elements[i].key) | sign, buffers);
      }
    }
    progress.Add(buffers.rows.Flush());
    progress.Add(buffers.counted.Flush());
    progress.Add(buffers.removed.Flush());
  });
  // Not less than the number of any step whose rows are in the file.
  writer.SetSteps(item, m_embedding.Clock().Steps());
}

void EmbeddingSource::TakeElement(const KavoHtBatchElement& element, std::uint64_t tag, Buffers& buffers) const {
  const long key = KeyOf(tag);
  if (element.value == nullptr) {
    unsigned char* const record = buffers.counted.Next();
    std::memcpy(record, &key, sizeof(key));
    std::memcpy(record + sizeof(key), &element.count, sizeof(element.count));
    buffers.progress.Add(buffers.counted.Keep());
    return;
  }
  unsigned char* const record = buffers.rows.Next();
  const RowsToSave terms{m_kind == SnapshotKind::FULL, m_since, m_mark};
  auto* const floats = reinterpret_cast<float*>(record + m_description.ValueOffset());
  RowHead::Word seen = 0;
  switch (TakeRow(element.value, terms, m_embedding.Layout().Floats(), floats, seen)) {
    case Taken::ROW: {
      std::memcpy(record, &key, sizeof(key));
      const std::uint64_t step = RowHead::Step(seen);
      std::memcpy(record + sizeof(key), &step, sizeof(step));
      if (m_description.hasCounts != 0) {
        const RowLayout& layout = m_embedding.Layout();
        // Relaxed: a count of its own.
        const unsigned count = layout.IsCounted()
                                   ? AtomicRef<unsigned>(layout.Count(element.value)).load(std::memory_order_relaxed)
                                   : element.count;
        std::memcpy(record + m_description.CountOffset(), &count, sizeof(count));
      }
      buffers.progress.Add(buffers.rows.Keep());
      break;
    }
    case Taken::REMOVAL:
      std::memcpy(buffers.removed.Next(), &key, sizeof(key));
      buffers.progress.Add(buffers.removed.Keep());
      break;
    case Taken::NOTHING:
      break;
  }
}

void EmbeddingSource::Committed(const SaveIdentity& identity) noexcept {
  SnapshotState& state = m_embedding.Snapshots();
  state.last = identity;
  state.cut = m_cut;
}

}  // namespace Qen
