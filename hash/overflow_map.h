// A bucket's overflow map: the keys for which no cell within reach was left.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <utility>

#include "platform/allocation.h"
#include "platform/atomic.h"
#include "platform/mutex.h"

namespace Qen {

// What the entries of one map cost, counted for the generation that owns the map. Whoever enters a key counts: the
// creator before the map has an owner, later ones under the map's lock.
class MapBytes {
 public:
  void Add(unsigned long long bytes) noexcept {
    if (m_total == nullptr) {
      m_early += bytes;
    } else {
      m_total->fetch_add(bytes, std::memory_order_relaxed);  // a statistic
    }
  }
  // Before the map is published.
  void CountInto(Atomic<unsigned long long>& total) noexcept {
    m_total = &total;
    Add(m_early);
  }

 private:
  Atomic<unsigned long long>* m_total = nullptr;
  unsigned long long m_early = 0;
};

template <class T>
struct MapAllocator : HeapAllocator<T> {
  explicit MapAllocator(MapBytes* count) noexcept : bytes(count) {}
  template <class U>
  MapAllocator(const MapAllocator<U>& other) noexcept : bytes(other.bytes) {}
  T* allocate(std::size_t n) {
    T* const memory = HeapAllocator<T>::allocate(n);
    bytes->Add(n * sizeof(T));
    return memory;
  }
  MapBytes* bytes;
};

// A key enters under the exclusive lock, after a look at the bucket's flags under it; searches hold the lock shared.
// Entries never move and are never removed, so the address of a record outlives the lock. A mover that has set
// MOVING takes the lock once and then walks without it, because nobody can enter any more.
template <class Key, class Value>
struct OverflowMap {
  using Allocator = MapAllocator<std::pair<const Key, Value>>;

  SharedMutex mutex;
  MapBytes bytes;
  std::map<Key, Value, std::less<Key>, Allocator> entries{Allocator(&bytes)};
  OverflowMap* nextOwned = nullptr;  // the generation's list of its maps; written before the map is published
};

}  // namespace Qen
