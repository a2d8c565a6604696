// Sums and means of rows.
//
// Keys are found a block at a time, whatever bags they are in. A run of keys of one bag is added up straight from the
// table, and the heads of its rows are looked at once before and once after: if one has changed, the run is done again.
#include "embedding/add_rows.h"
#include "embedding/embedding.h"
#include "embedding/row.h"

namespace Qen {
namespace {

constexpr std::size_t RUN = 32;           // keys whose heads are looked at together
constexpr std::size_t BAGS_A_PIECE = 64;  // that a thread takes at once

bool IsPadding(const KavoBags& bags, long key) noexcept {
  return bags.hasPadding != 0 && key == bags.padding;
}

// The head of a row that is there, 0 otherwise.
RowHead::Word WholeHead(unsigned char* row) noexcept {
  if (row == nullptr) {
    return 0;
  }
  const RowHead head(row);
  RowHead::Word word = head.Load();
  if (RowHead::IsBeingWritten(word)) {
    word = WaitForWriter(head);
  }
  return RowHead::HasRow(word) ? word : 0;
}

// Sums become means.
void Share(std::span<const long> keys, const KavoBags& bags, std::size_t bag, float* sum, std::size_t dim) noexcept {
  std::size_t counted = 0;
  for (std::size_t key = bags.offsets[bag]; key < bags.offsets[bag + 1]; ++key) {
    counted += IsPadding(bags, keys[key]) ? 0 : 1;
  }
  const float share = counted == 0 ? 0.0F : 1.0F / static_cast<float>(counted);
  for (std::size_t i = 0; i < dim; ++i) {
    sum[i] *= share;
  }
}

// Adds up the rows of one bag's keys [first, end), found at `rows`; `rowsEnd` is the end of what was found, to ask
// ahead in. False when a row changed meanwhile: the sum is good for nothing then. `copy` is room for a row of weights.
template <class Without>
bool AddRun(std::span<const long> keys, const KavoBags& bags, std::size_t first, std::size_t end,
            unsigned char* const* rows, const unsigned char* const* rowsEnd, const RowLayout& layout, float* sum,
            float* copy, const Without& without) {
  const std::size_t num = end - first;
  const std::size_t dim = layout.Dim();
  const std::size_t bytes = layout.WeightBytes();
  const float* const weights = bags.weights;
  const long* const padding = bags.hasPadding != 0 ? &bags.padding : nullptr;
  RowHead::Word heads[RUN];
  const float* floats[RUN];
  std::size_t added = 0;
  // In the order of the keys, as many together as stand in the table.
  const auto addUpTo = [&](std::size_t i) {
    AddRows(sum, floats + added, weights == nullptr ? nullptr : weights + first + added, i - added, dim);
    added = i;
  };
  for (std::size_t i = 0; i < num; ++i) {
    if (rows + i + ROWS_AHEAD < rowsEnd) {
      PrefetchRow(rows[i + ROWS_AHEAD], bytes);
    }
    const bool isPadding = padding != nullptr && keys[first + i] == *padding;
    heads[i] = isPadding ? 0 : WholeHead(rows[i]);
    if (heads[i] != 0) {
      floats[i] = RowLayout::Weights(rows[i]);
#ifndef KAVO_ATOMIC_FLOATS
      continue;
#endif
    }
    addUpTo(i);
    if (heads[i] != 0) {
      LoadFloats(floats[i], copy, dim);
      floats[i] = copy;
    } else {
      floats[i] = isPadding ? nullptr : without(first + i, rows[i], copy);
    }
    if (floats[i] == nullptr) {
      added = i + 1;
    } else {
      addUpTo(i + 1);
    }
  }
  addUpTo(num);
  bool same = true;
  for (std::size_t i = 0; i < num; ++i) {
    same = same && (heads[i] == 0 || RowHead::IsSameWrite(heads[i], SecondReading(RowHead(rows[i]))));
  }
  return same;
}

}  // namespace

// Some of the bags. What the loops need stands in variables of their own: what a closure refers to would be read again
// for each key.
template <class Find, class Without>
int Embedding::PoolPiece(std::span<const long> keys, KavoBags bags, std::size_t firstBag, std::size_t numBags,
                         float* pooled, Scratch& scratch, const Find& find, const Without& without) const {
  const std::size_t dim = m_layout.Dim();
  float* const before = scratch.floats.data() + m_layout.Floats();
  float* const copy = before + dim;
  std::fill_n(pooled + firstBag * dim, numBags * dim, 0.0F);
  const std::size_t last = bags.offsets[firstBag + numBags];
  std::size_t bag = firstBag;
  for (std::size_t first = bags.offsets[firstBag]; first < last;) {
    const std::size_t end = std::min(last, first + KeyTables::BLOCK);
    unsigned char* rows[KeyTables::BLOCK];
    const int status = find(first, end - first, rows);
    if (status != KAVO_SUCCESS) {
      return status;
    }
    PrefetchFirstRows(rows, end - first, m_layout.WeightBytes());
    for (std::size_t key = first; key < end;) {
      while (bags.offsets[bag + 1] <= key) {
        ++bag;
      }
      float* const sum = pooled + bag * dim;
      const std::size_t runEnd = std::min({end, key + RUN, static_cast<std::size_t>(bags.offsets[bag + 1])});
      std::copy_n(sum, dim, before);
      while (!AddRun(keys, bags, key, runEnd, rows + (key - first), rows + (end - first), m_layout, sum, copy,
                     [&](std::size_t missing, unsigned char* row, float* out) {
                       return without(missing, row, scratch.floats.data(), out);
                     })) {
        std::copy_n(before, dim, sum);
      }
      key = runEnd;
    }
    first = end;
  }
  for (std::size_t b = firstBag; bags.pool == KAVO_POOL_MEAN && b < firstBag + numBags; ++b) {
    Share(keys, bags, b, pooled + b * dim, dim);
  }
  return KAVO_SUCCESS;
}

template <class Find, class Without>
void Embedding::PoolBags(std::span<const long> keys, const KavoBags& bags, float* pooled, const Find& find,
                         const Without& without) const {
  ForBlocks(bags.num, BAGS_A_PIECE, [&](std::size_t firstBag, std::size_t numBags, Scratch& scratch) {
    return PoolPiece(keys, bags, firstBag, numBags, pooled, scratch, find, without);
  });
}

void Embedding::LookupBags(std::span<const long> keys, const KavoBags& bags, const Absent& absent,
                           float* pooled) const {
  PoolBags(
      keys, bags, pooled,
      [&](std::size_t first, std::size_t count, unsigned char** at) {
        return FindBlock(keys.subspan(first, count), at);
      },
      [&](std::size_t key, unsigned char*, float*, float* copy) -> const float* {
        switch (absent.kind) {
          case KAVO_ABSENT_ROW:
            return absent.row;
          case KAVO_ABSENT_START:
            m_start.Fill(keys[key], copy, m_layout.Dim());
            return copy;
          default:
            return nullptr;
        }
      });
}

unsigned long long Embedding::ForwardBags(std::span<const long> keys, const KavoBags& bags, float* pooled) {
  const StepClock::Call call(m_clock, StepClock::Call::Kind::WRITE);
  const long* const padding = bags.hasPadding != 0 ? &bags.padding : nullptr;
  FoundRows::Writer found(m_found, keys);
  if (OffersFirst()) {
    OfferAll(keys, nullptr, found.Rows(), padding);
  }
  Atomic<unsigned long long> rowless{0};
  PoolBags(
      keys, bags, pooled,
      [&](std::size_t first, std::size_t count, unsigned char** at) {
        if (OffersFirst()) {
          std::copy_n(found.Rows() + first, count, at);
        }
        const int status = OffersFirst() ? KAVO_SUCCESS : OfferBlock(keys.subspan(first, count), nullptr, at, padding);
        unsigned long long ofBlock = 0;
        for (std::size_t i = 0; status == KAVO_SUCCESS && i < count; ++i) {
          ofBlock += at[i] == nullptr && !IsPadding(bags, keys[first + i]) ? 1 : 0;
        }
        std::copy_n(at, status == KAVO_SUCCESS ? count : 0, found.Rows() + first);
        rowless.fetch_add(ofBlock, std::memory_order_relaxed);  // read once the workers were joined
        return status;
      },
      [&](std::size_t key, unsigned char* row, float* scratch, float* copy) -> const float* {
        if (row == nullptr) {
          m_start.Fill(keys[key], copy, m_layout.Dim());
        } else {
          ReadOrCreate(row, keys[key], call, scratch, copy);
        }
        return copy;
      });
  found.Finish();
  return rowless.load(std::memory_order_relaxed);
}

}  // namespace Qen
