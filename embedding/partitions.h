// The keys of a batch, scattered in order by the top bits of their tags into partitions of some 256 keys, and the
// distinct keys of each partition.
//
// A partition is the business of one thread at a time, and its elements keep the order of the batch: so no two threads
// share a row, and what is added up in that order does not depend on how many threads there are. A partition's working
// set fits the first-level cache.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "embedding/key_tables.h"
#include "embedding/reused.h"
#include "embedding/thread_pool.h"

namespace Qen {

struct Element {
  Tag tag;
  std::uint32_t index;  // in the batch
  std::uint32_t slot;   // of its key among the distinct ones of the partition
};

class Partitions {
 public:
  // Scatters the keys that are not `padding` (null: all). Fewer than 2^32. Throws std::bad_alloc.
  void Scatter(ThreadPool& pool, std::span<const long> keys, const long* padding);

  std::size_t Num() const noexcept { return m_distinct.size(); }
  // Elements of the largest partition.
  std::size_t Largest() const noexcept;
  std::span<Element> Of(std::size_t partition) noexcept {
    return m_elements.subspan(m_begins[partition], m_begins[partition + 1] - m_begins[partition]);
  }

  // The distinct keys of a partition in the order in which they come first, once Distinguish has been called for it,
  // and room for their rows.
  std::span<const Tag> TagsOf(std::size_t partition) const noexcept {
    return m_tags.subspan(m_begins[partition], m_distinct[partition]);
  }
  std::span<unsigned char*> RowsOf(std::size_t partition) noexcept {
    return m_rows.subspan(m_begins[partition], m_distinct[partition]);
  }
  // Numbers the distinct keys, and gives them their rows: null, or those that `known`, if not empty, has for each key
  // of the batch. `places` is room for a hash table: PlacesFor(Largest()) numbers.
  void Distinguish(std::size_t partition, std::span<std::uint32_t> places,
                   std::span<unsigned char* const> known) noexcept;
  static std::size_t PlacesFor(std::size_t elements) noexcept;
  std::size_t MostDistinct() const noexcept;

 private:
  std::span<Element> m_elements;
  std::span<std::size_t> m_begins;  // of each partition's elements; one more, the end
  std::span<std::uint32_t> m_distinct;
  std::span<Tag> m_tags;  // from m_begins[partition] on, as the rows
  std::span<unsigned char*> m_rows;

  // Where they lie; and, while keys are scattered, the tags of the batch in its order and each range's places.
  Reused<Element> m_elementMemory;
  Reused<std::size_t> m_beginMemory;
  Reused<std::uint32_t> m_distinctMemory;
  Reused<Tag> m_tagMemory;
  Reused<unsigned char*> m_rowMemory;
  Reused<std::size_t> m_placeMemory;
};

// Working memory of a backward call.
struct StepMemory {
  struct Worker {
    Reused<std::uint32_t> places;
    Reused<float> sums;
    Reused<float> row;
  };
  Partitions partitions;
  std::vector<Worker> workers;
  Reused<std::uint32_t> bagOf;  // each element of a bag call's batch
  Reused<float> shareOf;        // each bag, in a mean
};

}  // namespace Qen
