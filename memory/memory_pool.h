// The memory of one table's values.
//
// CONTRACT
//   A pool hands out blocks: a 4-byte header followed by the value bytes, header and value zero, the value aligned to
//   8 bytes. It owns every block until it is destroyed and never takes one back; it neither reads nor writes a block
//   that it has handed out. No two calls of GetMem get the same block.
//
//   A stock for the expected number of entries is reserved when the table is made. Whoever finds it used up gets fresh
//   blocks. A host that loads a table in bulk converts the stock (PrepareMemForValues), writes values into its blocks
//   (GetMemForValues), and lets the keys adopt them (GetMem with kind PREPARED).
//
// WHICH CALLS MAY OVERLAP
//   GetMem and GetMemForValues: with each other and themselves, from any threads; neither throws. GetMem takes no lock
//   but to start a run of fresh blocks (see FreshBlocks), and allocates only for that and for a thread's first call on
//   an id outside 0 to 1023.
//   InitMemPool: before the first block is taken or any other thread knows the pool. PrepareMemForValues: while no
//   other call is in progress; if the host breaks this, a call beside it may draw on either stock, and nothing worse.
//   Construction may throw what a lock throws. Destruction: after every other call, and when nobody uses a block.
//
// ORDER OF BLOCKS
//   Each thread walks the slots of the stock once, circularly, from an offset of its own, and takes the first slot that
//   is available. A slot that it passes it never looks at again, whether another thread had taken it or the host had
//   not released it yet. The n-th thread to come, from 0, starts at 0, S, S/2, 3S/4, S/4, 3S/8, 5S/8 ... of S slots:
//   each power of two halves the spacing. So a thread that is alone gets block 0, 1, 2 ... and, in a prepared stock,
//   its i-th new key gets the value written at index i. Where the thread stands is kept in its ThreadIndex record,
//   under the serial of this pool; a thread that can have no record gets fresh blocks.
//
// STATES OF A SLOT (its flag), the last one final
//   from       to         by whom
//   IN_STOCK   TAKEN      GetMem, kind ORDINARY, before the conversion
//   IN_STOCK   RELEASED   GetMemForValues, after the conversion
//   RELEASED   TAKEN      GetMem, kind PREPARED
//   The conversion changes no flag, only which state GetMem looks for: a block in stock is what a prepared stock calls
//   held. Blocks taken before the conversion stay taken.
//
// INVARIANTS
//   I1  Every change of a flag is one strong compare-exchange, and whoever makes it TAKEN gets the block. (A weak one
//       that failed for no reason would pass over a slot for good.)
//   I2  A thread gets a fresh block in place of one in stock only when it has seen every slot unavailable. Before the
//       conversion that means that every slot is taken, for ever.
//
// WHO MAY TOUCH WHAT
//   Stock, flags' address and count are written by InitMemPool only. Flags, m_prepared and the counters are atomic.
//   A block's bytes are those of whoever got its address; what a host writes through GetMemForValues it must order
//   itself before the inserts that may adopt it.
//
// COST
//   The stock takes stride (see block_layout.h) + 1 bytes for each entry, of address space until touched. A block from
//   it costs one load and one compare-exchange of a byte, for each taken slot on the way one load.
#pragma once

#include "memory/block_layout.h"
#include "memory/fresh_blocks.h"
#include "memory/pool_serial.h"
#include "memory/thread_index.h"
#include "platform/allocation.h"
#include "platform/atomic.h"

namespace Qen {

enum class MemKind : int {
  PREPARED = 0,  // asked for: a block whose value the host may have written already; answered: it has
  ORDINARY = 1,  // a zero-filled block
};

class MemoryPool {
 public:
  // `blockSize` is the table's value length + 4.
  MemoryPool(int id, unsigned blockSize);
  ~MemoryPool() = default;
  MemoryPool(const MemoryPool&) = delete;
  MemoryPool& operator=(const MemoryPool&) = delete;

  // Reserves the stock. KAVO_SUCCESS; KAVO_INVALID when `count` is 0 or there is a stock already; KAVO_NO_MEMORY, after
  // which it may be called again. Without a stock all blocks are fresh.
  int InitMemPool(unsigned long long count) noexcept;

  // Puts a block into `out` and says in `kind` which kind it is: PREPARED was asked for and is answered only by a block
  // of a prepared stock. KAVO_SUCCESS, or KAVO_NO_MEMORY; then `out` is unchanged and `kind` is ORDINARY.
  int GetMem(NumberedBlock& out, MemKind& kind) noexcept;

  // Converts the stock, once and for ever, and gives its size. KAVO_SUCCESS; KAVO_NO_MEMORY when there is no stock;
  // KAVO_INVALID when it was converted before (`count` is given all the same).
  int PrepareMemForValues(unsigned long long& count) noexcept;

  // Gives block `index` of the prepared stock, header included, and releases it to GetMem. The value must be written
  // before a key is inserted that may adopt it. A block that is released and not yet taken is given again.
  // KAVO_SUCCESS; KAVO_NO_MEMORY before the conversion; KAVO_INVALID for an index beyond the stock, or whose block is
  // taken. On failure `ptr` is unchanged.
  int GetMemForValues(unsigned long long index, unsigned char*& ptr) noexcept;

  unsigned BlockSize() const noexcept { return m_blockSize; }

  // Addresses of blocks by number.
  const BlockDirectory& Directory() const noexcept { return m_fresh.Directory(); }

  // The bytes of all blocks that GetMem has handed out, and of the memory that is there for further ones. The stock's
  // part is an estimate, which costs GetMem nothing: see StockTaken. Beside any other call. Throws what a lock throws.
  struct Usage {
    unsigned long long handedOut;
    unsigned long long inStock;
  };
  Usage GetUsage();

 private:
  enum SlotState : unsigned char { IN_STOCK = 0, RELEASED = 1, TAKEN = 2 };

  void Register(ThreadIndex& record) noexcept;
  bool TakeFromStock(ThreadIndex& record, unsigned char available, NumberedBlock& block) noexcept;
  AtomicRef<unsigned char> Flag(unsigned long long slot) const noexcept;
  unsigned long long StockTaken() const noexcept;
  void HandOut(unsigned char* block) const noexcept;

  // Fixed after construction.
  const int m_id;
  const unsigned m_blockSize;
  const BlockLayout m_layout;
  const PoolSerial m_serial;

  // Written by InitMemPool, before the pool is shared.
  unsigned long long m_count = 0;
  ZeroedRange m_mem;       // m_count blocks
  ZeroedRange m_memFlags;  // m_count slot states

  Atomic<bool> m_prepared{false};
  Atomic<bool> m_allTaken{false};             // set by who finds every slot of the unconverted stock taken
  Atomic<unsigned long long> m_threadNum{0};  // threads that have registered; only goes up

  FreshBlocks m_fresh;
};

}  // namespace Qen
