// The chain of a table's generations, and the moving of entries along it.
//
// THE IDEA: COPY, NEVER EMPTY. A key's block has one address for the life of its table and keys are never removed, so a
// move copies records and leaves the old ones where they are. A reader may meet an old generation at any time, and
// whatever block it finds there is the right one. A move can be given up half way and repeated.
//
// THE CHAIN. m_curHashCore is where searches start; each generation leads to the next, twice as large. Generations
// before the current one are left: every bucket there has MOVED. They stay in the chain until the table is destroyed,
// but their cells' memory goes back to the system (give_back.h).
//
//   newest         no next one                           left by MakeNewTable, under m_buildMutex
//   being emptied  has a next one; buckets are moved     left when the last bucket was moved
//   emptied        MOVED is set at every index           left by DeleteOldTable, under m_deleteMutex, after all older
//                                                        ones
//   left           m_deleted; a later one is current     final
//
// TWO WAYS TO GROW, with one routine that moves a bucket.
//   whole table   whoever meets a full generation joins its move, shared out in chunks, and waits for the end
//                 (whole_table_move.h).
//   gradual       an insert that meets a full generation moves its own bucket, and each further insert sweeps up a few
//                 more of the oldest generation, so that it is empty well before a third one is needed. If it is not,
//                 whoever adds the third finishes the oldest, straight into it (gradual_move.h).
//
// INVARIANTS
//   C1  The next generation is published before any MOVING is set.
//   C2  The current generation moves forward only, over emptied generations only, so every entry is in the current
//       generation or reachable from it along MOVED buckets.
//   C3  Whether a generation's move is over is decided by what was moved (its buckets, counted), never by how many
//       threads are at work.
//   C4  A failure gives back all that its thread held: the bucket's MOVING, the chunk, its place in m_rehashNum, the
//       build permit. The copies that it made stay; they are right. Whoever needs the rest goes on from there.
//   C5  While a bucket is in place, the buckets of the next generation that its keys would go to hold nothing but
//       copies of them that a given up move made. So a mover that skips the next generation marks them MOVED first,
//       and from then on every way leads past them.
//
// A generation may fill while it is still being moved into (a small table does so at once). It then starts its own
// move; a mover into it follows the buckets that have moved on, as every insert does.
//
// WAITS. The owner of a bucket's MOVING waits only for records in FILLING and maps being built in its own bucket, and
// for newer generations; an owner of FILLING waits for nobody; whoever waits for a chunk or a generation holds neither.
// So no waits form a cycle. Each wait ends with its condition, or with the failure of what it waits for.
//
// LOCKS. m_buildMutex, m_deleteMutex and m_giveBackMutex are never held together, and no other lock is taken under any.
//
// Definitions: the chain in generation_chain.h, the memory of left generations in give_back.h, the placing of entries
// and the move of one bucket in bucket_move.h.
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

  // A walk over the table keeps the cells of every generation that is in use when it begins, or later; it begins with
  // the oldest of them.
  const Core* BeginWalk() noexcept {
    m_walks.fetch_add(1, std::memory_order_seq_cst);  // see GiveBackSome, for both
    return m_curHashCore.load(std::memory_order_seq_cst);
  }
  void EndWalk() noexcept;

  // One bucket.

  // Copies every entry of a bucket into `dst` or, where a bucket there has moved on, further, and counts them in
  // `entries`. The caller is the bucket's mover.
  int RehashInsert(Core* src, const unsigned long long& bucket, Core* dst, unsigned long long& entries);
  // Places one key with its block.
  int RehashInsertEntry(Core* dst, const Key& key, const Value& source);

  // A whole generation.

  // Moves every bucket of every chunk of `src` that this thread can claim.
  int MoveOldEntryToNewTable(Core* src, Core* dst);
  // Joins the move of `core`, and returns when it is over and the generation is left.
  int BeginWholeTableMigration(Core* core);
  // The same for the oldest generation in use, of three or more, into the third: what gradual growth left of it.
  int RehashRemainBucket(Core* src, Core* dst);

  // Gradual growth: `core` is full, and an insert has met it in `bucket`. Moves that bucket.
  int RehashCheck(Core* core, const unsigned long long& bucket);
  // Moves a few more buckets of the oldest generation. Waits for no mover; a failure, after its lines, hurts nobody.
  void Sweep(Core* oldest) noexcept;

 protected:
  using Cell = typename Core::Cell;
  using Entry = typename Core::Entry;
  using Outcome = typename Core::Outcome;

  enum class BucketClaim { OWNED, MOVED, BUSY, FAILED };

  // What a thread has moved of a generation, told to it at the end: others look at the generation's counts meanwhile.
  struct MovedCount {
    Core* core;
    unsigned long long buckets = 0;
    unsigned long long entries = 0;
    explicit MovedCount(Core* source) noexcept : core(source) {}
    MovedCount(const MovedCount&) = delete;
    MovedCount& operator=(const MovedCount&) = delete;
    ~MovedCount() {
      if (buckets != 0) {
        core->CountMoved(buckets, entries);
      }
    }
  };

  int SetNextHashCore(HeapPtr<Core> next);
  int UpdateHashCore(Core*& left);
  void LeaveIfEmptied(Core* core) noexcept;
  int HashTableGetSeqNum(const Core* core) const;

  // A hint. Acquire: the generation is looked into. Relaxed: GiveBackSome counts again.
  bool IsGiveBackDue() const noexcept {
    return m_giveBack.load(std::memory_order_acquire)->IsDeleted() && m_walks.load(std::memory_order_relaxed) == 0;
  }
  bool GiveBackSome() noexcept;

  int RehashInsertBucket(Core* src, const unsigned long long& bucket, Core* dst, unsigned long long& entries);
  bool WaitForRecord(const Value& record);
  int PtrAcquire(const Value& record);
  int MapValueAcquire(const Value& record);
  Outcome RehashMapInsert(Core* dst, const Key& key, std::uint64_t home, std::uint8_t flags, Entry& entry);
  int DoubleRehashCheck(Core*& dst, const unsigned long long& home);

  BucketClaim TryClaimBucket(Core* core, const unsigned long long& bucket);
  BucketClaim ClaimBucket(Core* core, const unsigned long long& bucket);
  int PassOverMiddle(Core* src, Core* middle, const unsigned long long& bucket);
  int MoveClaimedBucket(Core* src, const unsigned long long& bucket, Core* dst, MovedCount& moved);
  int MoveBucket(Core* src, const unsigned long long& bucket, Core* dst, MovedCount& moved, bool& overtime);

  int StartMove(Core* src, Core* dst, const unsigned long long& bucket, MovedCount& moved);
  int MoveChunk(Core* src, Core* dst, unsigned long long first, unsigned long long last);
  int MoveTogether(Core* src, Core* dst, bool& overtime);

  int BeginGredualMigration(Core* core, const unsigned long long& bucket, bool& overtime);
  int RehashOneBucket(Core* old, const unsigned long long& bucket, Core* next, bool& overtime);
  int NoNextTable(Core* core, const unsigned long long& bucket, bool& overtime);
  int AddNewTableAndRehash(Core* old, const unsigned long long& bucket, bool& overtime);
  int SelectRehashMode(Core* old, Core* next, const unsigned long long& bucket, bool& overtime);

  // Set before the first insert, or while none runs.
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

  // Walks under way. Sequentially consistent, with m_curHashCore: see GiveBackSome.
  Atomic<unsigned> m_walks{0};
  Mutex m_giveBackMutex;
  // The first left generation that has cells still, or else the first that is not left. Written under m_giveBackMutex.
  Atomic<Core*> m_giveBack{nullptr};

  // Statistics, hence relaxed.
  Atomic<unsigned long long> m_growths{0};              // generations built
  Atomic<unsigned long long> m_backstopCompletions{0};  // oldest generations that the sweep had not emptied in time
};

}  // namespace Qen

#include "hash/bucket_move.h"
#include "hash/generation_chain.h"
#include "hash/give_back.h"
#include "hash/gradual_move.h"
#include "hash/whole_table_move.h"
