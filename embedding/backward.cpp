// One step of the optimiser for each distinct key of a batch, partition by partition (partitions.h):
//
//   1  keys are scattered into partitions, equal ones found, and the rows of the distinct ones looked up, unless they
//      are known from forward;
//   2  what memory the rest needs is known, and had. Nothing has changed so far;
//   3  gradients of equal keys are added, while the rows are asked for; then each row takes its step.
#include <numeric>

#include "embedding/add_rows.h"
#include "embedding/embedding.h"
#include "embedding/partitions.h"
#include "embedding/row.h"

namespace Qen {
namespace {

constexpr std::size_t GRADIENTS_AHEAD = 4;

// Where the gradient of an element of the batch comes from: a row of its own.
struct RowGradients {
  const float* gradients;
  std::size_t dim;

  static constexpr bool HasFactors() noexcept { return false; }
  const float* Of(std::size_t index) const noexcept { return gradients + index * dim; }
  static float Factor(std::size_t) noexcept { return 1; }
};

// Its bag's, times its weight or its share in the mean.
struct BagGradients {
  const float* gradients;
  std::size_t dim;
  const float* weights;
  std::span<std::uint32_t> bagOf;  // each element
  std::span<float> shareOf;        // each bag; empty but for means

  bool HasFactors() const noexcept { return weights != nullptr || !shareOf.empty(); }
  const float* Of(std::size_t index) const noexcept { return gradients + std::size_t{bagOf[index]} * dim; }
  float Factor(std::size_t index) const noexcept {
    return weights != nullptr ? weights[index] : shareOf.empty() ? 1.0F : shareOf[bagOf[index]];
  }
};

BagGradients MakeBagGradients(std::span<const long> keys, const KavoBags& bags, const float* gradients, std::size_t dim,
                              StepMemory& memory) {
  const BagGradients made{gradients, dim, bags.weights, memory.bagOf.Take(keys.size()),
                          memory.shareOf.Take(bags.pool == KAVO_POOL_MEAN ? bags.num : 0)};
  for (std::size_t bag = 0; bag < bags.num; ++bag) {
    std::size_t counted = 0;
    for (std::size_t i = bags.offsets[bag]; i < bags.offsets[bag + 1]; ++i) {
      made.bagOf[i] = static_cast<std::uint32_t>(bag);
      counted += bags.hasPadding != 0 && keys[i] == bags.padding ? 0 : 1;
    }
    if (!made.shareOf.empty()) {
      made.shareOf[bag] = 1.0F / static_cast<float>(std::max<std::size_t>(counted, 1));
    }
  }
  return made;
}

// A row's step; nothing if it has been forgotten meanwhile. `scratch` is room for the row.
template <class Optimiser>
void StepRow(unsigned char* row, const float* sums, const RowLayout& layout, const Optimiser& optimiser,
             std::uint64_t number, [[maybe_unused]] float* scratch) noexcept {
  RowHead head(row);
  RowHead::Word seen = 0;
  if (!BeginWrite(head, seen, RowHead::HasRow)) {
    return;
  }
  float* const floats = RowLayout::Weights(row);
#ifdef KAVO_ATOMIC_FLOATS
  LoadFloats(floats, scratch, layout.Floats());
  optimiser.Step(scratch, scratch + layout.Dim(), sums, layout.Dim());
  StoreFloats(scratch, floats, layout.Floats());
#else
  optimiser.Step(floats, floats + layout.Dim(), sums, layout.Dim());
#endif
  // The larger: calls at work together may come to a row in either order.
  head.EndWrite(seen, std::max(number, RowHead::Step(seen)));
}

// The three parts of a partition's work. What their loops need stands in variables of their own: what a closure refers
// to would be read again for each key.

// Adds gradients of equal keys up, while the rows are asked for.
template <class Source>
void AddUp(std::span<const Element> elements, std::span<unsigned char* const> rows, const Source source,
           const RowLayout& layout, float* sums) noexcept {
  const std::size_t dim = layout.Dim();
  const std::size_t bytes = layout.Bytes();
  std::fill_n(sums, rows.size() * dim, 0.0F);
  for (std::size_t e = 0; e < elements.size(); ++e) {
    if (e < rows.size()) {  // there are no more distinct keys than elements
      PrefetchRow(rows[e], bytes);
    }
    if (e + GRADIENTS_AHEAD < elements.size()) {
      PrefetchForRead(source.Of(elements[e + GRADIENTS_AHEAD].index));
    }
    const float* const gradient = source.Of(elements[e].index);
    const float factor = source.Factor(elements[e].index);
    AddRows(sums + elements[e].slot * dim, &gradient, source.HasFactors() ? &factor : nullptr, 1, dim);
  }
}

// Makes rows null that are none (yet, or any more). Answers how many of the elements have no row.
unsigned long long DropRowless(std::span<const Element> elements, std::span<unsigned char*> rows) noexcept {
  bool any = false;
  for (unsigned char*& row : rows) {
    row = row != nullptr && HasRowNow(row) ? row : nullptr;
    any = any || row == nullptr;
  }
  return !any ? 0
              : static_cast<unsigned long long>(
                    std::count_if(elements.begin(), elements.end(),
                                  [rows](const Element& element) { return rows[element.slot] == nullptr; }));
}

template <class Optimiser>
void StepRows(std::span<unsigned char* const> rows, const float* sums, const RowLayout& layout,
              const Optimiser optimiser, std::uint64_t number, float* scratch) noexcept {
  const std::size_t dim = layout.Dim();
  for (unsigned char* const row : rows) {
    if (row != nullptr) {
      StepRow(row, sums, layout, optimiser, number, scratch);
    }
    sums += dim;
  }
}

}  // namespace

template <class Source>
unsigned long long Embedding::Train(std::span<const long> keys, const Source& source, const long* padding, float scale,
                                    float* weightGradients, StepMemory& memory) {
  const StepClock::Call call(m_clock, StepClock::Call::Kind::STEP);
  const std::size_t dim = m_layout.Dim();
  const FoundRows::Reader found(m_found, keys);
  Partitions& all = memory.partitions;
  all.Scatter(m_pool, keys, padding);
  const std::size_t workers = std::min<std::size_t>(m_pool.Threads(), all.Num());
  memory.workers.resize(std::max(memory.workers.size(), workers));
  // work(worker, partition) for all partitions, on the threads of the pool.
  const auto forEachPartition = [&](const auto& work) {
    Atomic<std::size_t> next{0};
    m_pool.Run(workers, [&](std::size_t worker) {
      // Relaxed: hands out numbers.
      for (std::size_t partition = next.fetch_add(1, std::memory_order_relaxed); partition < all.Num();
           partition = next.fetch_add(1, std::memory_order_relaxed)) {
        work(worker, partition);
      }
    });
  };
  std::vector<StepMemory::Worker>& ofWorkers = memory.workers;

  const std::size_t places = Partitions::PlacesFor(all.Largest());
  for (std::size_t worker = 0; worker < workers; ++worker) {
    ofWorkers[worker].places.Take(places);
  }
  Atomic<int> failed{KAVO_SUCCESS};
  forEachPartition([&](std::size_t worker, std::size_t partition) {
    all.Distinguish(partition, ofWorkers[worker].places.Take(places), found.Rows());
    const std::span<const Tag> tags = all.TagsOf(partition);
    const std::span<unsigned char*> rows = all.RowsOf(partition);
    const bool known = std::find(rows.begin(), rows.end(), nullptr) == rows.end();
    for (std::size_t first = 0; !known && first < tags.size(); first += KeyTables::BLOCK) {
      const std::size_t count = std::min(KeyTables::BLOCK, tags.size() - first);
      const int status = m_tables->Find(&tags[first], count, &rows[first]);
      if (status != KAVO_SUCCESS) {
        failed.store(status, std::memory_order_relaxed);  // read once the workers were joined
      }
    }
  });
  CheckBase(failed.load(std::memory_order_relaxed), "KavoBatchLookup");
  const std::size_t sumFloats = all.MostDistinct() * dim;
  for (std::size_t worker = 0; worker < workers; ++worker) {
    ofWorkers[worker].sums.Take(sumFloats);
    ofWorkers[worker].row.Take(m_layout.Floats());
  }

  Atomic<unsigned long long> passedOver{0};
  const OptimiserInput input{call.Rates(), m_options.initialAccumulator, call.Number(), scale};
  ForOptimiser(m_options.optimiser, input, [&](const auto& optimiser) {
    forEachPartition([&](std::size_t worker, std::size_t partition) {
      float* const sums = ofWorkers[worker].sums.Take(sumFloats).data();
      float* const copy = ofWorkers[worker].row.Take(m_layout.Floats()).data();
      AddUp(all.Of(partition), all.RowsOf(partition), source, m_layout, sums);
      const unsigned long long rowless =
          DropRowless(all.Of(partition), all.RowsOf(partition));  // before any gradient of weights, and any step
      if (weightGradients != nullptr) {
        AddWeightGradients(keys, all.Of(partition), all.RowsOf(partition), source, scale, copy, weightGradients);
      }
      StepRows(all.RowsOf(partition), sums, m_layout, optimiser, call.Number(), copy);
      passedOver.fetch_add(rowless, std::memory_order_relaxed);  // read once the workers were joined
    });
  });
  return passedOver.load(std::memory_order_relaxed);
}

// From the rows as they are. A key without a row counts as its start.
template <class Source>
void Embedding::AddWeightGradients(std::span<const long> keys, std::span<const Element> elements,
                                   std::span<unsigned char* const> rows, const Source& source, float scale, float* copy,
                                   float* weightGradients) const {
  const std::size_t dim = m_layout.Dim();
  for (const Element& element : elements) {
    unsigned char* const row = rows[element.slot];
    RowHead::Word seen = 0;
    if (row == nullptr || !ReadRow(row, dim, copy, seen)) {
      m_start.Fill(keys[element.index], copy, dim);
    }
    const float* const gradient = source.Of(element.index);
    weightGradients[element.index] = std::inner_product(copy, copy + dim, gradient, 0.0F) * scale;
  }
}

unsigned long long Embedding::Backward(std::span<const long> keys, const float* gradients, float scale) {
  Spares<StepMemory>::Lent memory(m_stepMemories);
  return Train(keys, RowGradients{gradients, m_layout.Dim()}, nullptr, scale, nullptr, *memory);
}

unsigned long long Embedding::BackwardBags(std::span<const long> keys, const KavoBags& bags, const float* gradients,
                                           float scale, float* weightGradients) {
  if (weightGradients != nullptr) {
    std::fill_n(weightGradients, keys.size(), 0.0F);  // of padding
  }
  Spares<StepMemory>::Lent memory(m_stepMemories);
  const BagGradients source = MakeBagGradients(keys, bags, gradients, m_layout.Dim(), *memory);
  return Train(keys, source, bags.hasPadding != 0 ? &bags.padding : nullptr, scale, weightGradients, *memory);
}

}  // namespace Qen
