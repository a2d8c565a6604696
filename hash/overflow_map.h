// A bucket's overflow map: the keys for which no cell within reach was left.
#pragma once

#include <functional>
#include <map>
#include <utility>

#include "platform/allocation.h"
#include "platform/mutex.h"

namespace Qen {

// A key enters under the exclusive lock, after a look at the bucket's flags under it; searches hold the lock shared.
// Entries never move and are never removed, so the address of a record outlives the lock. A mover that has set
// MOVING takes the lock once and then walks without it, because nobody can enter any more.
template <class Key, class Value>
struct OverflowMap {
  SharedMutex mutex;
  std::map<Key, Value, std::less<Key>, HeapAllocator<std::pair<const Key, Value>>> entries;
  OverflowMap* nextOwned = nullptr;  // the generation's list of its maps; written before the map is published
};

}  // namespace Qen
