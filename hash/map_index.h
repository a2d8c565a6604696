// The overflow maps of one generation, by bucket. A generation has few, hardly one in a thousand cells, so its cells
// keep no room for their address. (Only where hostile keys were moved to it there may be one in five.)
//
// CONTRACT. Any number of threads may add maps, each for a bucket that has none, and find them. A map stays to the end,
// and so does its place in its list.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/allocation.h"
#include "platform/atomic.h"

namespace Qen {

template <class Map>
class MapIndex {
 public:
  MapIndex() noexcept = default;
  // For a generation of `cells`, a power of two: a list for 64 of them. Throws std::bad_alloc.
  explicit MapIndex(unsigned long long cells)
      : m_shift(64 - std::max(1, static_cast<int>(std::bit_width(cells / 64)) - 1)),
        m_memory(std::size_t{1} << (64 - m_shift), sizeof(Atomic<Map*>)) {}
  MapIndex& operator=(MapIndex&&) noexcept = default;
  ~MapIndex() {
    for (std::size_t i = 0; i < m_memory.Bytes() / sizeof(Atomic<Map*>); ++i) {
      Map* map = Lists()[i].load(std::memory_order_acquire);  // pairs with Add
      while (map != nullptr) {
        Map* const next = map->next;
        HeapDelete(map);
        map = next;
      }
    }
  }

  // Takes the map over. Release: the map is seen with its place in the list.
  void Add(Map* map) noexcept {
    Atomic<Map*>& list = ListOf(map->home);
    map->next = list.load(std::memory_order_relaxed);
    while (!list.compare_exchange_weak(map->next, map, std::memory_order_release, std::memory_order_relaxed)) {
    }
  }

  // The bucket's map, else null.
  Map* Find(std::uint64_t bucket) const noexcept {
    Map* map = ListOf(bucket).load(std::memory_order_acquire);  // pairs with Add
    while (map != nullptr && map->home != bucket) {
      map = map->next;
    }
    return map;
  }

 private:
  Atomic<Map*>* Lists() const noexcept { return static_cast<Atomic<Map*>*>(m_memory.Data()); }
  // Spread by a multiplication: buckets with maps are neighbours, or lie a power of two apart.
  Atomic<Map*>& ListOf(std::uint64_t bucket) const noexcept {
    return Lists()[(bucket * 0x9E3779B97F4A7C15ULL) >> m_shift];
  }

  int m_shift = 63;
  ZeroedRange m_memory;  // zero bytes are empty lists
};

}  // namespace Qen
