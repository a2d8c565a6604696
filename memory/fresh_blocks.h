// Zero-filled blocks of one size, as many as are asked for, made in large pieces and all freed together.
//
// CONTRACT
//   Any number of threads may call Take at once. A block is handed out once and belongs to this object until it is
//   destroyed, which nobody may do while a thread is in Take or uses a block. Take throws std::bad_alloc when the
//   system gives no memory, and whatever a lock throws; nothing is lost by that, and the next call tries again.
//
// LAYOUT
//   chunk    one range from the system: the first of some 64 KiB (or one block, where that is more), each
//            further one twice as large, or as the system gives; what is not touched costs address space only
//   run      consecutive blocks of a chunk, with the count of those handed out
//   arena    a current run; each thread always takes from the same arena, many threads may share one
//
// HOW A BLOCK IS TAKEN
//   One fetch-add on the arena's current run. Whoever finds the run used up takes the lock, carves the next run from
//   the current chunk (or gets a chunk), keeps the first block and publishes the rest.
//
// INVARIANTS
//   I1  A block lies in exactly one run, and a run hands out index i to the one thread whose fetch-add gave i.
//   I2  A run is never changed, but for its count, nor freed before this object is: a thread may still hold the
//       address of a run that has been replaced.
//   I3  An arena's run is replaced only under the lock and only when it is used up, so no block is skipped.
//
// WHO MAY TOUCH WHAT
//   An arena's run pointer is written under the lock (release) and read by anyone (acquire); it carries the run's
//   fields and the zeros of its blocks. The run's count is written by anyone. Everything else is guarded by the lock,
//   which is held while a chunk is mapped; no other lock is ever taken under it.
//
// COST
//   A block costs `stride` bytes and one fetch-add on a cache line that only the threads of one arena share. Runs
//   start at 8 blocks and double, for each arena, to 1,024 blocks or 256 KiB: at any time an arena holds back at most 6
//   blocks more than it has given out. Threads that come and go leave nothing behind, since arenas are not theirs.
#pragma once

#include <cstddef>
#include <vector>

#include "memory/block_layout.h"
#include "platform/allocation.h"
#include "platform/atomic.h"
#include "platform/block_directory.h"
#include "platform/mutex.h"

namespace Qen {

class FreshBlocks {
 public:
  explicit FreshBlocks(const BlockLayout& layout) noexcept;
  ~FreshBlocks();
  FreshBlocks(const FreshBlocks&) = delete;
  FreshBlocks& operator=(const FreshBlocks&) = delete;

  NumberedBlock Take();

  // Blocks handed out so far, those given back again included, and the bytes that are taken from the system for them
  // and for blocks to come. Takes the lock once. Throws what it throws.
  struct Usage {
    unsigned long long blocks;
    unsigned long long bytes;
  };
  Usage GetUsage();

  // Takes back a block that nobody else has seen; the next Take may hand it out again, zero-filled.
  void GiveBack(const NumberedBlock& block) noexcept;

  // Addresses by number. A stock of the owner's is set there before the first block is taken.
  BlockDirectory& Directory() noexcept { return m_directory; }
  const BlockDirectory& Directory() const noexcept { return m_directory; }

 private:
  struct Run;
  struct Arena {
    Atomic<Run*> run{nullptr};
    unsigned long long nextCount = 0;  // blocks of the next run; guarded by m_mutex
  };

  static constexpr unsigned ARENA_COUNT = 32;

  bool TakeSpare(NumberedBlock& block);
  bool ReplaceRun(Arena& arena, const Run* usedUp, NumberedBlock& block);
  void MapChunk();

  // Fixed after construction.
  const BlockLayout m_layout;
  const unsigned long long m_maxRunCount;

  BlockDirectory m_directory;  // its ranges are the chunks; set under m_mutex

  Arena m_arenas[ARENA_COUNT];

  // Whether m_spare holds any; set under the lock, a hint elsewhere.
  Atomic<bool> m_hasSpare{false};

  // Guarded by m_mutex.
  Mutex m_mutex;
  // Blocks given back: the first one's number + 1, or 0; each begins with the same of the next.
  BlockNumber m_spare = 0;
  Run* m_runs = nullptr;  // every run, newest first
  std::vector<ZeroedRange, HeapAllocator<ZeroedRange>> m_chunks;
  NumberedBlock m_chunkNext;           // the first block not yet in a run
  unsigned long long m_chunkLeft = 0;  // blocks from there to the end of the chunk
  unsigned long long m_inRuns = 0;     // blocks of all runs
  unsigned long long m_chunkBytes = 0;
};

}  // namespace Qen
