// The chain of a table's generations, and the moving of entries along it.
//
// THE IDEA: COPY, NEVER EMPTY. A key's block has one address for the life of its table and keys are never removed, so a
// move copies pointers and leaves the old ones where they are. A reader may meet an old generation at any time, and
// whatever block it finds there is the right one. A move can be given up half way and repeated.
//
// THE CHAIN. m_curHashCore is where searches start; each generation leads to the next, twice as large. Generations
// before the current one are left: every bucket there has MOVED. They stay, readable, until the table is destroyed.
//
//   newest         no next one                           left by MakeNewTable, under m_buildMutex
//   being emptied  has a next one; chunks are moved      left when the last chunk is finished
//   emptied        MOVED is set at every index           left by DeleteOldTable, under m_deleteMutex, after all older
//                                                        ones
//   left           m_deleted; a later one is current     final
//
// INVARIANTS
//   C1  The next generation is published before any MOVING is set.
//   C2  The current generation moves forward only, over emptied generations only, so every entry is in the current
//       generation or reachable from it along MOVED buckets.
//   C3  Whether a generation's move is over is decided by what was moved (its finished chunks), never by how many
//       threads are at work.
//   C4  A failure gives back all that its thread held: the bucket's MOVING, the chunk, its place in m_rehashNum, the
//       build permit. The copies that it made stay; they are right. Whoever needs the rest goes on from there.
//
// A generation may fill while it is still being moved into (a small table does so at once). It then starts its own
// move; a mover into it follows the buckets that have moved on, as every insert does.
//
// WAITS. The owner of a bucket's MOVING waits only for records in FILLING and maps being built in its own bucket, and
// for newer generations; an owner of FILLING waits for nobody; whoever waits for a chunk or a generation holds neither.
// So no waits form a cycle. Each wait ends with its condition, or with the failure of what it waits for.
//
// LOCKS. m_buildMutex and m_deleteMutex are never held together, and no other lock is taken under either.
//
// Definitions: the chain in generation_chain.h, the placing of entries and the move of one bucket in bucket_move.h, the
// shared move of a whole generation in whole_table_move.h.
#pragma once

#include <cstdint>

#include "hash/hash_core.h"
#include "hash/hcore.h"
#include "platform/atomic.h"
#include "platform/mutex.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
class HashCoreMigration {
 public:
  using Core = HashCore<Key, Value, KTraits, VTraits>;

  // The chain. All return 0 or a negative status, after their lines.

  // Makes sure that a generation follows `old`; `next` is that generation. KAVO_NO_MEMORY.
  int MakeNewTable(Core* old, Core*& next);
  // Leaves `old`, which is emptied, and every other emptied generation at the front. KAVO_FAILED.
  int DeleteOldTable(Core* old);

  // One bucket. The caller is the bucket's mover.

  // Copies every entry of a bucket into `dst` or, where a bucket there has moved on, further.
  int RehashInsert(Core* src, const unsigned long long& bucket, Core* dst);
  // Places one key with its block.
  int RehashInsertEntry(Core* dst, const Key& key, const Value& source);

  // A whole generation.

  // Moves every bucket of every chunk of `src` that this thread can claim.
  int MoveOldEntryToNewTable(Core* src, Core* dst);
  // Joins the move of `core`, and returns when it is over and the generation is left.
  int BeginWholeTableMigration(Core* core);

 protected:
  using Cell = typename Core::Cell;
  using Outcome = typename Core::Outcome;

  int SetNextHashCore(HeapPtr<Core> next);
  int UpdateHashCore(Core*& left);

  int RehashInsertBucket(Core* src, const unsigned long long& bucket, Core* dst);
  int PtrAcquire(const Value& record);
  int MapValueAcquire(const Value& record);
  Outcome RehashMapInsert(Core* dst, const Key& key, std::uint64_t home, std::uint8_t flags, Value*& record);
  int DoubleRehashCheck(Core*& dst, const unsigned long long& home);

  int StartMove(Core* src, Core* dst, const unsigned long long& bucket);
  int MoveChunk(Core* src, Core* dst, unsigned long long first, unsigned long long last);

  // Set before the first insert.
  Atomic<std::uint8_t> m_rehashType{REHASH_WHOLE_TABLE};
  // The pointer that leaving a generation advances. Written with one and the same value by whoever starts to migrate.
  Atomic<Atomic<Core*>*> m_root{nullptr};
  // False while a generation is being built: a hint for those who would build it too. m_buildMutex decides.
  Atomic<bool> m_buildPermit{true};
  Mutex m_buildMutex;
  Mutex m_deleteMutex;
  // Acquire and release throughout: a generation is seen fully built, and with it all copies made before it became
  // current.
  Atomic<Core*> m_curHashCore{nullptr};
};

}  // namespace Qen

#include "hash/bucket_move.h"
#include "hash/generation_chain.h"
#include "hash/whole_table_move.h"
