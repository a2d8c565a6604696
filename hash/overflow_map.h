// A bucket's overflow map: the keys that found all cells within reach taken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>

#include "platform/allocation.h"
#include "platform/atomic.h"
#include "platform/mutex.h"

namespace Qen {

// Counts what it gives, for the generation that owns the map. Entries are never removed.
template <class T>
struct MapAllocator : HeapAllocator<T> {
  explicit MapAllocator(Atomic<unsigned long long>& count) noexcept : bytes(&count) {}
  template <class U>
  MapAllocator(const MapAllocator<U>& other) noexcept : bytes(other.bytes) {}
  T* allocate(std::size_t n) {
    T* const memory = HeapAllocator<T>::allocate(n);
    bytes->fetch_add(n * sizeof(T), std::memory_order_relaxed);  // a statistic
    return memory;
  }
  Atomic<unsigned long long>* bytes;
};

// A key enters under the exclusive lock, after a look at the bucket's flags under it; searches hold the lock shared.
// Entries never move and are never removed, so the address of a record outlives the lock. A mover that has set
// MOVING takes the lock once and then walks without it, because nobody can enter any more.
template <class Key, class Value>
struct OverflowMap {
  using Allocator = MapAllocator<std::pair<const Key, Value>>;

  OverflowMap(std::uint64_t bucket, Atomic<unsigned long long>& bytes) : home(bucket), entries(Allocator(bytes)) {}

  const std::uint64_t home;
  SharedMutex mutex;
  std::map<Key, Value, std::less<Key>, Allocator> entries;
  OverflowMap* next = nullptr;  // in its list; written before the map is published
};

}  // namespace Qen
