// Rows one for one: lookup, forward, rows with their state.
#include <cstring>

#include "embedding/embedding.h"
#include "embedding/row.h"

namespace Qen {
namespace {

unsigned Threads(unsigned asked) noexcept {
  return asked != 0 ? asked : std::max(1U, std::thread::hardware_concurrency());
}

// A count that ends at its largest number.
void AddOccurrences(unsigned& count, unsigned more) noexcept {
  AtomicRef<unsigned> shared(count);
  // Relaxed: a count of its own.
  unsigned before = shared.load(std::memory_order_relaxed);
  unsigned after = 0;
  do {
    after = before > ~0U - more ? ~0U : before + more;
  } while (after != before && !shared.compare_exchange_weak(before, after, std::memory_order_relaxed));
}

}  // namespace

Embedding::Embedding(const KavoEmbeddingOptions& options)
    : m_options(options),
      m_layout(options.dim, options.optimiser, options.counts != 0 && options.admission <= 1),
      m_start(options.initialiser, options.startA, options.startB, options.seed),
      m_clock(options.rates, 0),
      m_tables(MakeSpare()),
      m_pool(Threads(options.threads)) {
  CheckBase(m_tables->MakeFirst(), "KavoInitHashTable");
}

std::unique_ptr<KeyTables> Embedding::MakeSpare() const {
  const KeyTables::Shape shape{static_cast<unsigned>(m_options.expected), static_cast<unsigned>(m_layout.Bytes()),
                               m_options.admission, m_options.growth};
  return std::make_unique<KeyTables>(shape);
}

void Embedding::Replace(std::unique_ptr<KeyTables> tables) noexcept {
  m_walks.clear();  // of the tables that go
  m_found.Clear();
  m_tables = std::move(tables);
  m_rows.store(0, std::memory_order_relaxed);  // a statistic
}

void Embedding::SetStart(const KavoEmbeddingOptions& startOptions) {
  m_options.initialiser = startOptions.initialiser;
  m_options.startA = startOptions.startA;
  m_options.startB = startOptions.startB;
  m_options.initialAccumulator = startOptions.initialAccumulator;
  m_options.seed = startOptions.seed;
  m_start = Start(m_options.initialiser, m_options.startA, m_options.startB, m_options.seed);
}

KavoEmbeddingOptions Embedding::Options() const {
  KavoEmbeddingOptions options = m_options;
  options.rates = m_clock.Rates();
  return options;
}

int Embedding::FindBlock(std::span<const long> keys, unsigned char** rows) const {
  Tag tags[KeyTables::BLOCK];
  std::transform(keys.begin(), keys.end(), tags, TagOf);
  return m_tables->Find(tags, keys.size(), rows);
}

int Embedding::OfferBlock(std::span<const long> keys, const unsigned* occurrences, unsigned char** rows,
                          const long* padding) {
  Tag tags[KeyTables::BLOCK];
  std::transform(keys.begin(), keys.end(), tags, TagOf);
  const bool offerAll = m_options.admission > 1 && m_options.counts != 0;  // the table counts
  std::size_t there = 0;
  int status = m_tables->Find(tags, keys.size(), rows, &there);
  if (status != KAVO_SUCCESS || (there == keys.size() && !offerAll && !m_layout.IsCounted())) {
    return status;
  }
  const auto isPadding = [padding](long key) { return padding != nullptr && key == *padding; };
  Tag offered[KeyTables::BLOCK];
  unsigned counts[KeyTables::BLOCK];
  unsigned where[KeyTables::BLOCK];
  unsigned char* found[KeyTables::BLOCK];
  std::size_t num = 0;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if ((rows[i] == nullptr || offerAll) && !isPadding(keys[i])) {
      offered[num] = tags[i];
      counts[num] = occurrences == nullptr ? 1 : occurrences[i];
      where[num++] = static_cast<unsigned>(i);
    }
  }
  if (num != 0) {
    status = m_tables->Offer(offered, num, counts, found);
    if (status != KAVO_SUCCESS) {
      return status;
    }
    for (std::size_t i = 0; i < num; ++i) {
      rows[where[i]] = found[i];
    }
  }
  if (m_layout.IsCounted()) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (isPadding(keys[i])) {
        continue;
      }
      AddOccurrences(m_layout.Count(rows[i]), occurrences == nullptr ? 1 : occurrences[i]);
    }
  }
  return KAVO_SUCCESS;
}

void Embedding::OfferAll(std::span<const long> keys, const unsigned* occurrences, unsigned char** rows,
                         const long* padding) {
  for (std::size_t first = 0; first < keys.size(); first += KeyTables::BLOCK) {
    const std::size_t count = std::min(KeyTables::BLOCK, keys.size() - first);
    CheckBase(OfferBlock(keys.subspan(first, count), occurrences == nullptr ? nullptr : occurrences + first,
                         rows + first, padding),
              "KavoBatchOffer");
  }
}

void Embedding::Create(unsigned char* row, long key, const StepClock::Call& call, float* scratch) {
  const bool created = CreateRow(row, m_layout.Floats(), call.Number(), scratch, [&](float* floats) {
    m_start.Fill(key, floats, m_layout.Dim());
    const OptimiserInput input{call.Rates(), m_options.initialAccumulator, call.Number(), 1};
    ForOptimiser(m_options.optimiser, input,
                 [&](const auto& optimiser) { optimiser.Begin(floats, floats + m_layout.Dim(), m_layout.Dim()); });
  });
  m_rows.fetch_add(created ? 1 : 0, std::memory_order_relaxed);  // a statistic
}

void Embedding::ReadOrCreate(unsigned char* row, long key, const StepClock::Call& call, float* scratch, float* out) {
  RowHead::Word seen = 0;
  while (!ReadRow(row, m_layout.Dim(), out, seen)) {
    Create(row, key, call, scratch);
  }
}

// What the loop needs stands in variables of its own: what a closure refers to would be read again for each key.
int Embedding::LookupBlock(std::span<const long> keys, Absent absent, float* rows, unsigned char* found) const {
  unsigned char* at[KeyTables::BLOCK];
  const int status = FindBlock(keys, at);
  if (status != KAVO_SUCCESS) {
    return status;
  }
  const std::size_t dim = m_layout.Dim();
  const std::size_t bytes = m_layout.WeightBytes();
  const std::size_t count = keys.size();
  PrefetchFirstRows(at, count, bytes);
  for (std::size_t i = 0; i < count; ++i, rows += dim) {
    if (i + ROWS_AHEAD < count) {
      PrefetchRow(at[i + ROWS_AHEAD], bytes);
    }
    RowHead::Word seen = 0;
    const bool there = at[i] != nullptr && ReadRow(at[i], dim, rows, seen);
    if (!there) {
      switch (absent.kind) {
        case KAVO_ABSENT_ROW:
          std::copy_n(absent.row, dim, rows);
          break;
        case KAVO_ABSENT_START:
          m_start.Fill(keys[i], rows, dim);
          break;
        default:
          std::fill_n(rows, dim, 0.0F);
      }
    }
    if (found != nullptr) {
      found[i] = there ? 1 : 0;
    }
  }
  return KAVO_SUCCESS;
}

void Embedding::Lookup(std::span<const long> keys, const Absent& absent, float* rows, unsigned char* found) const {
  ForBlocks(keys.size(), KeyTables::BLOCK, [&](std::size_t first, std::size_t count, Scratch&) {
    return LookupBlock(keys.subspan(first, count), absent, rows + first * m_layout.Dim(),
                       found == nullptr ? nullptr : found + first);
  });
}

// Adds to `rowless` how many of the keys had no row at their turn.
int Embedding::ForwardBlock(std::span<const long> keys, const unsigned* occurrences, const StepClock::Call& call,
                            float* scratch, unsigned char** at, float* rows, unsigned long long& rowless) {
  const int status = OffersFirst() ? KAVO_SUCCESS : OfferBlock(keys, occurrences, at);
  if (status != KAVO_SUCCESS) {
    return status;
  }
  const std::size_t dim = m_layout.Dim();
  const std::size_t bytes = m_layout.WeightBytes();
  const std::size_t count = keys.size();
  unsigned long long without = 0;
  PrefetchFirstRows(at, count, bytes);
  for (std::size_t i = 0; i < count; ++i, rows += dim) {
    if (i + ROWS_AHEAD < count) {
      PrefetchRow(at[i + ROWS_AHEAD], bytes);
    }
    if (at[i] == nullptr) {
      m_start.Fill(keys[i], rows, dim);
      ++without;
    } else {
      ReadOrCreate(at[i], keys[i], call, scratch, rows);
    }
  }
  rowless += without;
  return KAVO_SUCCESS;
}

unsigned long long Embedding::Forward(std::span<const long> keys, const unsigned* occurrences, float* rows) {
  const StepClock::Call call(m_clock, StepClock::Call::Kind::WRITE);
  FoundRows::Writer found(m_found, keys);
  if (OffersFirst()) {
    OfferAll(keys, occurrences, found.Rows(), nullptr);
  }
  Atomic<unsigned long long> without{0};
  ForBlocks(keys.size(), KeyTables::BLOCK, [&](std::size_t first, std::size_t count, Scratch& scratch) {
    unsigned long long rowless = 0;
    const int status =
        ForwardBlock(keys.subspan(first, count), occurrences == nullptr ? nullptr : occurrences + first, call,
                     scratch.floats.data(), found.Rows() + first, rows + first * m_layout.Dim(), rowless);
    without.fetch_add(rowless, std::memory_order_relaxed);  // read once the workers were joined
    return status;
  });
  found.Finish();
  return without.load(std::memory_order_relaxed);
}

void Embedding::GetRows(std::span<const long> keys, float* rows, unsigned long long* steps,
                        unsigned char* found) const {
  const std::size_t floats = m_layout.Floats();
  ForBlocks(keys.size(), KeyTables::BLOCK, [&](std::size_t first, std::size_t count, Scratch& scratch) {
    unsigned char* at[KeyTables::BLOCK];
    const int status = FindBlock(keys.subspan(first, count), at);
    if (status != KAVO_SUCCESS) {
      return status;
    }
    for (std::size_t i = 0; i < count; ++i) {
      RowHead::Word seen = 0;
      const bool there = at[i] != nullptr && ReadRow(at[i], floats, scratch.floats.data(), seen);
      if (there) {
        std::copy_n(scratch.floats.data(), floats, rows + (first + i) * floats);
        if (steps != nullptr) {
          steps[first + i] = RowHead::Step(seen);
        }
      }
      if (found != nullptr) {
        found[first + i] = there ? 1 : 0;
      }
    }
    return static_cast<int>(KAVO_SUCCESS);
  });
}

void Embedding::SetRows(std::span<const long> keys, const float* rows) {
  const StepClock::Call call(m_clock, StepClock::Call::Kind::WRITE);
  const std::size_t floats = m_layout.Floats();
  // On one thread: of a key that repeats the last row stays.
  for (std::size_t first = 0; first < keys.size(); first += KeyTables::BLOCK) {
    const std::span<const long> block = keys.subspan(first, std::min(KeyTables::BLOCK, keys.size() - first));
    Tag tags[KeyTables::BLOCK];
    unsigned char* at[KeyTables::BLOCK];
    std::transform(block.begin(), block.end(), tags, TagOf);
    unsigned counts[KeyTables::BLOCK] = {};  // none: admits a new key at once
    CheckBase(m_tables->Offer(tags, block.size(), counts, at), "KavoBatchOffer");
    for (std::size_t i = 0; i < block.size(); ++i) {
      if (at[i] == nullptr) {  // counted before: as often as admission asks for
        CheckBase(m_tables->Offer(&tags[i], 1, &m_options.admission, &at[i]), "KavoBatchOffer");
      }
    }
    for (std::size_t i = 0; i < block.size(); ++i) {
      RowHead head(at[i]);
      RowHead::Word seen = 0;
      BeginWrite(head, seen, [](RowHead::Word) { return true; });
      m_rows.fetch_add(RowHead::HasRow(seen) ? 0 : 1, std::memory_order_relaxed);  // a statistic
      StoreFloats(rows + (first + i) * floats, RowLayout::Weights(at[i]), floats);
      head.EndWrite(seen, call.Number());
    }
  }
}

void Embedding::AddStats(KavoEmbeddingStats& stats) const {
  stats.steps = m_clock.Steps();
  stats.rows = m_rows.load(std::memory_order_relaxed);  // a statistic
  stats.rowBytes = m_layout.Bytes();
  for (unsigned table = 0; table < m_tables->Num(); ++table) {
    KavoTableStats of{};
    of.size = sizeof(of);
    CheckBase(KavoGetTableStats(m_tables->Id(table), &of), "KavoGetTableStats");
    auto* const sum = reinterpret_cast<unsigned long long*>(&stats.table);
    const auto* const more = reinterpret_cast<const unsigned long long*>(&of);
    for (std::size_t i = 1; i < sizeof(of) / sizeof(*more); ++i) {  // the first is the struct's size
      sum[i] += more[i];
    }
    stats.table.linesHeldBack = of.linesHeldBack;  // of the process, not of a table
    if (m_options.admission > 1) {
      unsigned long long keys = 0;
      unsigned long long admitted = 0;
      unsigned valueLen = 0;
      CheckBase(KavoGetHtSizeAndVl(m_tables->Id(table), &keys, &valueLen, false), "KavoGetHtSizeAndVl");
      CheckBase(KavoGetHtSizeAndVl(m_tables->Id(table), &admitted, &valueLen, true), "KavoGetHtSizeAndVl");
      stats.counted += keys > admitted ? keys - admitted : 0;
    }
  }
}

}  // namespace Qen
