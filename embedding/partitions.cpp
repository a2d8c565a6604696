#include "embedding/partitions.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace Qen {
namespace {

constexpr std::size_t KEYS_A_PARTITION = 256;
constexpr unsigned MAX_PARTITION_BITS = 12;
constexpr std::size_t KEYS_A_RANGE = 4096;  // fewer are not worth a thread

}  // namespace

// A stable counting sort. Threads take ranges of the batch, count, and then write to places that no two of them share.
void Partitions::Scatter(ThreadPool& pool, std::span<const long> keys, const long* padding) {
  const unsigned bits =
      std::min(MAX_PARTITION_BITS, static_cast<unsigned>(std::bit_width(keys.size() / KEYS_A_PARTITION)));
  const std::size_t num = std::size_t{1} << bits;
  // From bit 62 downwards; the sign is no part of the mixed key.
  const auto partitionOf = [bits](Tag tag) -> std::size_t { return bits == 0 ? 0 : (tag << 1) >> (64 - bits); };
  const std::size_t ranges = std::min<std::size_t>(pool.Threads(), keys.size() / KEYS_A_RANGE + 1);
  const std::size_t length = (keys.size() + ranges - 1) / ranges;
  // Whoever has scattered needs the tags in the batch's order no more: their memory is that of the distinct keys'.
  const std::span<Tag> tags = m_tagMemory.Take(keys.size());
  const std::span<std::size_t> places = m_placeMemory.Take(ranges * num);  // counts, then where a range's elements go
  std::fill(places.begin(), places.end(), 0);
  const auto forEach = [&](std::size_t range, const auto& use) {
    const std::size_t end = std::min(keys.size(), (range + 1) * length);
    for (std::size_t i = range * length; i < end; ++i) {
      if (padding == nullptr || keys[i] != *padding) {
        use(i);
      }
    }
  };
  pool.Run(ranges, [&](std::size_t range) {
    forEach(range, [&](std::size_t i) {
      tags[i] = TagOf(keys[i]);
      ++places[range * num + partitionOf(tags[i])];
    });
  });
  m_begins = m_beginMemory.Take(num + 1);
  std::size_t total = 0;
  for (std::size_t partition = 0; partition < num; ++partition) {
    m_begins[partition] = total;
    for (std::size_t range = 0; range < ranges; ++range) {
      total += std::exchange(places[range * num + partition], total);
    }
  }
  m_begins[num] = total;
  m_elements = m_elementMemory.Take(total);
  m_distinct = m_distinctMemory.Take(num);
  m_rows = m_rowMemory.Take(total);
  pool.Run(ranges, [&](std::size_t range) {
    forEach(range, [&](std::size_t i) {
      m_elements[places[range * num + partitionOf(tags[i])]++] = {tags[i], static_cast<std::uint32_t>(i), 0};
    });
  });
  m_tags = tags.first(total);
}

std::size_t Partitions::Largest() const noexcept {
  std::size_t largest = 0;
  for (std::size_t partition = 0; partition < Num(); ++partition) {
    largest = std::max(largest, m_begins[partition + 1] - m_begins[partition]);
  }
  return largest;
}

std::size_t Partitions::MostDistinct() const noexcept {
  return *std::max_element(m_distinct.begin(), m_distinct.end());
}

std::size_t Partitions::PlacesFor(std::size_t elements) noexcept {
  return std::bit_ceil(2 * elements);
}

void Partitions::Distinguish(std::size_t partition, std::span<std::uint32_t> places,
                             std::span<unsigned char* const> known) noexcept {
  const std::span<Element> elements = Of(partition);
  Tag* const tags = m_tags.data() + m_begins[partition];
  unsigned char** const rows = m_rows.data() + m_begins[partition];
  const std::size_t mask = PlacesFor(elements.size()) - 1;
  std::fill_n(places.begin(), mask + 1, 0);  // 0: free; else a slot and 1
  std::uint32_t num = 0;
  for (Element& element : elements) {
    std::size_t place = element.tag & mask;  // the low bits are as good as any: partitions are made by the high ones
    while (places[place] != 0 && tags[places[place] - 1] != element.tag) {
      place = (place + 1) & mask;
    }
    if (places[place] == 0) {
      tags[num] = element.tag;
      rows[num] = known.empty() ? nullptr : known[element.index];
      places[place] = ++num;
    }
    element.slot = places[place] - 1;
  }
  m_distinct[partition] = num;
}

}  // namespace Qen
