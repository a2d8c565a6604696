// What each thread remembers about the pools that it takes blocks from: its position in each.
#pragma once

namespace Qen {

// One thread's position in one pool. The scan covers positions `start` to `start` + count - 1, circularly over the
// pool's slots; `cursor` is the next one to look at. A record that carries another serial than the pool's is one of an
// earlier pool with the same id, or nobody's (serial 0): the thread has not registered with this pool.
struct ThreadIndex {
  unsigned long long serial;
  unsigned long long cursor;
  unsigned long long start;
};

// The calling thread's record for table `id`. Ids 0 to 1023 have theirs in an array; all others, negative ones
// included, in a map. Null when the map has no memory for the record, or when the thread is ending and its map is gone
// already (a host's own thread-local destructor may still insert): such a thread does without a position.
//
// Touched by the calling thread only. The address holds until the thread's next call.
//
// The records of ids in the array stay until the thread ends, 24 KB in all. In the map, records of destroyed pools are
// dropped whenever the map has doubled, so it holds at most 64 records, or twice as many as there were live pools.
ThreadIndex* FindThreadIndex(int id) noexcept;

}  // namespace Qen
