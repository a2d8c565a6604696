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
#include "embedding/thread_pool.h"

namespace Qen {

struct Element {
  Tag tag;
  std::uint32_t index;  // in the batch
  std::uint32_t slot;   // of its key among the distinct ones of the partition
};

class Partitions {
 public:
  // Of the keys that are not `padding` (null: of all). Fewer than 2^32.
  Partitions(ThreadPool& pool, std::span<const long> keys, const long* padding);

  std::size_t Num() const noexcept { return m_begins.size() - 1; }
  // Elements of the largest partition.
  std::size_t Largest() const noexcept;
  std::span<Element> Of(std::size_t partition) noexcept {
    return std::span(m_elements).subspan(m_begins[partition], m_begins[partition + 1] - m_begins[partition]);
  }

  // The distinct keys of a partition in the order in which they come first, once Distinguish has been called for it,
  // and room for their rows.
  std::span<const Tag> TagsOf(std::size_t partition) const noexcept {
    return std::span(m_tags).subspan(m_begins[partition], m_distinct[partition]);
  }
  std::span<unsigned char*> RowsOf(std::size_t partition) noexcept {
    return std::span(m_rows).subspan(m_begins[partition], m_distinct[partition]);
  }
  // Numbers the distinct keys. `places` is room for a hash table: PlacesFor(Largest()) numbers.
  void Distinguish(std::size_t partition, std::vector<std::uint32_t>& places) noexcept;
  static std::size_t PlacesFor(std::size_t elements) noexcept;
  std::size_t MostDistinct() const noexcept;

 private:
  std::vector<Element> m_elements;
  std::vector<std::size_t> m_begins;  // of each partition's elements; one more, the end
  std::vector<std::uint32_t> m_distinct;
  std::vector<Tag> m_tags;  // from m_begins[partition] on, as the rows
  std::vector<unsigned char*> m_rows;
};

}  // namespace Qen
