// An embedding: rows in tables of the base, and what is done with batches of them. The rules of each call are those of
// kavo_embedding.h; arguments have been checked by whoever calls.
//
// All members but construction, destruction and loading may run at once. What they share:
//
//   tables    safe by themselves (key_tables.h); rows by their heads (row_head.h)
//   clock     numbers of steps, rates, calls at work (step_clock.h)
//   memories  of backward calls, each used by one of them at a time (reused.h)
//   found     what forward calls found, for backward (found_rows.h)
//   pool      deals the blocks of a call out to threads (thread_pool.h)
//   the rest  fixed after construction; seed and initialiser after loading
//
// A call goes over its keys in blocks of 512: tags, one batch of the base, then row by row, with the rows of keys
// further on asked for. Failures throw Failure or what the standard library throws; a piece of work on another thread
// reports a status.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "embedding/found_rows.h"
#include "embedding/key_tables.h"
#include "embedding/partitions.h"
#include "embedding/reused.h"
#include "embedding/row_layout.h"
#include "embedding/snapshot_state.h"
#include "embedding/start.h"
#include "embedding/step_clock.h"
#include "embedding/table_walk.h"
#include "embedding/thread_pool.h"
#include "kavo_embedding.h"
#include "snapshot/failure.h"

namespace Qen {

class Embedding {
 public:
  // `options` were checked.
  explicit Embedding(const KavoEmbeddingOptions& options);

  KavoEmbeddingOptions Options() const;
  void SetRates(const KavoRates& rates) { m_clock.SetRates(rates); }
  bool Trains() const noexcept { return m_options.optimiser != KAVO_OPTIMISER_NONE; }
  const RowLayout& Layout() const noexcept { return m_layout; }
  StepClock& Clock() noexcept { return m_clock; }
  KeyTables& Tables() const noexcept { return *m_tables; }
  SnapshotState& Snapshots() noexcept { return m_snapshots; }
  ThreadPool& Pool() const noexcept { return m_pool; }

  struct Absent {
    unsigned kind;     // KAVO_ABSENT_...
    const float* row;  // of KAVO_ABSENT_ROW
  };

  void Lookup(std::span<const long> keys, const Absent& absent, float* rows, unsigned char* found) const;
  // `occurrences` may be null. Answers how many of the keys had no row at their turn.
  unsigned long long Forward(std::span<const long> keys, const unsigned* occurrences, float* rows);
  // Answers how many keys were passed over.
  unsigned long long Backward(std::span<const long> keys, const float* gradients, float scale);

  void LookupBags(std::span<const long> keys, const KavoBags& bags, const Absent& absent, float* pooled) const;
  unsigned long long ForwardBags(std::span<const long> keys, const KavoBags& bags, float* pooled);
  unsigned long long BackwardBags(std::span<const long> keys, const KavoBags& bags, const float* gradients, float scale,
                                  float* weightGradients);

  void GetRows(std::span<const long> keys, float* rows, unsigned long long* steps, unsigned char* found) const;
  void SetRows(std::span<const long> keys, const float* rows);
  // Fills `keys` with the next keys of a walk; fewer at its end, where `cursor` becomes null.
  std::size_t NextKeys(void*& cursor, std::span<long> keys);
  void AddStats(KavoEmbeddingStats& stats) const;

  // Of a snapshot that is loaded. No other call is at work.
  void SetStart(const KavoEmbeddingOptions& startOptions);
  // Tables as it was made with, not yet in memory; and puts such in the place of those that there are.
  std::unique_ptr<KeyTables> MakeSpare() const;
  void Replace(std::unique_ptr<KeyTables> tables) noexcept;

  // A statistic.
  unsigned long long Rows() const noexcept { return m_rows.load(std::memory_order_relaxed); }
  void CountRows(unsigned long long added, unsigned long long removed) noexcept {
    m_rows.fetch_add(added - removed, std::memory_order_relaxed);
  }

 private:
  // What a worker of a call needs for itself.
  struct Scratch {
    std::vector<float> floats;  // a row with its state, and two rows of weights
  };

  // body(first, count, scratch) for blocks of at most KeyTables::BLOCK of `num` items, on the threads of the pool;
  // throws Failure for a status that is not KAVO_SUCCESS.
  template <class Body>
  void ForBlocks(std::size_t num, std::size_t blockItems, const Body& body) const;

  // Lookup and forward of up to a block of keys.
  int LookupBlock(std::span<const long> keys, Absent absent, float* rows, unsigned char* found) const;
  // Forward writes where the rows stand to `at`, unless they stand there.
  int ForwardBlock(std::span<const long> keys, const unsigned* occurrences, const StepClock::Call& call, float* scratch,
                   unsigned char** at, float* rows, unsigned long long& rowless);
  // Finds the rows of up to a block of keys.
  int FindBlock(std::span<const long> keys, unsigned char** rows) const;
  // The same, and offers what has none, or what is to be counted; not the padding key, if there is one.
  int OfferBlock(std::span<const long> keys, const unsigned* occurrences, unsigned char** rows,
                 const long* padding = nullptr);
  // Where the table counts, occurrences of a key that stands in several blocks count in the order of the array: forward
  // offers all keys before it deals blocks out to threads.
  bool OffersFirst() const noexcept { return m_options.admission > 1; }
  void OfferAll(std::span<const long> keys, const unsigned* occurrences, unsigned char** rows, const long* padding);
  // Copies a row's weights out; creates it, with the number of the call, if it has no start yet or was forgotten.
  void ReadOrCreate(unsigned char* row, long key, const StepClock::Call& call, float* scratch, float* out);
  void Create(unsigned char* row, long key, const StepClock::Call& call, float* scratch);

  // find(first, count, rows) gives the rows of a block of keys. without(index, row, scratch, out) gives the floats of a
  // key that has none (null for zeros): its row is null, or in the table and not yet created, or forgotten.
  template <class Find, class Without>
  int PoolPiece(std::span<const long> keys, KavoBags bags, std::size_t firstBag, std::size_t numBags, float* pooled,
                Scratch& scratch, const Find& find, const Without& without) const;
  template <class Find, class Without>
  void PoolBags(std::span<const long> keys, const KavoBags& bags, float* pooled, const Find& find,
                const Without& without) const;

  template <class Source>
  unsigned long long Train(std::span<const long> keys, const Source& source, const long* padding, float scale,
                           float* weightGradients, StepMemory& memory);
  template <class Source>
  void AddWeightGradients(std::span<const long> keys, std::span<const Element> elements,
                          std::span<unsigned char* const> rows, const Source& source, float scale, float* copy,
                          float* weightGradients) const;

  KavoEmbeddingOptions m_options;  // but for the rates
  RowLayout m_layout;
  Start m_start;
  StepClock m_clock;
  std::unique_ptr<KeyTables> m_tables;  // never null
  mutable ThreadPool m_pool;
  Atomic<unsigned long long> m_rows{0};
  Spares<StepMemory> m_stepMemories;
  FoundRows m_found;
  SnapshotState m_snapshots;
  Mutex m_walksMutex;  // guards the next two, not the walks
  std::map<std::uintptr_t, TableWalk> m_walks;
  std::uintptr_t m_lastWalk = 0;
};

template <class Body>
void Embedding::ForBlocks(std::size_t num, std::size_t blockItems, const Body& body) const {
  const std::size_t blocks = (num + blockItems - 1) / blockItems;
  const std::size_t workers = std::min<std::size_t>(m_pool.Threads(), blocks);
  std::vector<Scratch> scratches(std::max<std::size_t>(workers, 1));
  for (Scratch& scratch : scratches) {
    scratch.floats.resize(m_layout.Floats() + 2 * m_layout.Dim());
  }
  Atomic<std::size_t> next{0};
  Atomic<int> failed{KAVO_SUCCESS};
  m_pool.Run(workers, [&](std::size_t worker) {
    // Relaxed, here and below: hands out numbers; whoever reads the status has joined the workers.
    for (std::size_t block = next.fetch_add(1, std::memory_order_relaxed);
         block < blocks && failed.load(std::memory_order_relaxed) == KAVO_SUCCESS;
         block = next.fetch_add(1, std::memory_order_relaxed)) {
      const std::size_t first = block * blockItems;
      const int status = body(first, std::min(blockItems, num - first), scratches[worker]);
      if (status != KAVO_SUCCESS) {
        failed.store(status, std::memory_order_relaxed);
      }
    }
  });
  CheckBase(failed.load(std::memory_order_relaxed), "a table of the embedding");
}

}  // namespace Qen
