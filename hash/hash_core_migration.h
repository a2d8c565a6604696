// The chain of a table's generations, and the moving of entries along it.
//
// THE IDEA: COPY, NEVER EMPTY. A key's block has one address for the life of its table and keys are never removed, so a
// move copies records and leaves the old ones where they are. A reader may meet an old generation at any time, and
// whatever block it finds there is the right one. A move can be given up half way and repeated.
//
// THE CHAIN. m_curHashCore is where searches start; each generation leads to the next, twice as large. Generations
// before the current one are retired: every bucket there has MOVED. They stay in the chain until the table is
// destroyed, but their cells' memory goes back to the system (give_back.h).
//
//   state of a generation                                ends
//   newest         no next one                           with BuildNext, under m_buildMutex
//   being emptied  has a next one; buckets are moved     when the last bucket has moved
//   emptied        MOVED is set at every index           with DeleteOldTable, under m_deleteMutex, after all older ones
//   retired        m_deleted; a later one is current     with the table
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
// Longer members: the chain in generation_chain.h, the memory of retired generations in give_back.h, the move of one
// bucket and the placing of its entries in bucket_move.h, the two ways to grow in files of their names.
//
// Functions carry names that stand in log lines, which hosts match on. A log line of a step that has no function of its
// own names the step (KAVO_LOG_ERROR_AS).
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

  // All that answer an int return 0 or a negative status, logged.

  // The chain.

  // Makes sure that a generation follows `old`; `next` is that generation. KAVO_NO_MEMORY.
  int MakeNewTable(Core* old, Core*& next);
  // Retires `old`, which is emptied, and every other emptied generation at the front. KAVO_FAILED.
  int DeleteOldTable(Core* old);

  // A walk over the table keeps the cells of every generation that is in use when it begins, or later; it begins with
  // the oldest of them.
  const Core* BeginWalk() noexcept {
    m_walks.fetch_add(1, std::memory_order_seq_cst);  // see GiveBackSome, for both
    return m_curHashCore.load(std::memory_order_seq_cst);
  }
  void EndWalk() noexcept {
    // Release: what the walk has read came before whatever is given back now.
    if (m_walks.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      while (GiveBackSome()) {
      }
    }
  }

  // One bucket.

  // Copies every entry of a bucket into `dst` or, where a bucket there has moved on, further, and counts them in
  // `entries`. The caller is the bucket's mover.
  int RehashInsert(Core* src, const unsigned long long& bucket, Core* dst, unsigned long long& entries);
  // Places one key with its block.
  int RehashInsertEntry(Core* dst, const Key& key, const Value& source);

  // A whole generation.

  // Joins the move of `core`, and returns when it is over and the generation is retired.
  int BeginWholeTableMigration(Core* core);
  // The same for the oldest generation in use, of three or more, into the third: what gradual growth has not moved.
  int RehashRemainBucket(Core* src, Core* dst);
  // Moves every bucket of every chunk of `src` that this thread can claim.
  int MoveOldEntryToNewTable(Core* src, Core* dst);

  // Gradual growth.

  // `core` is full, and an insert has met it in `bucket`: moves that bucket, into a next generation that is built if
  // there is none.
  int RehashCheck(Core* core, const unsigned long long& bucket);
  // Moves a few more buckets of the oldest generation. Waits for no mover; a failure, logged, hurts nobody.
  void Sweep(Core* oldest) noexcept;

 protected:
  using Cell = typename Core::Cell;
  using Entry = typename Core::Entry;
  using Outcome = typename Core::Outcome;

  enum class BucketClaim { OWNED, MOVED, BUSY, FAILED };

  // What a step of a growth came to. OVERTIME: it waited for other threads for too long. To the insert that is a
  // failure like others, but the log lines on the way there are its own.
  enum class Step { DONE = KAVO_SUCCESS, FAILED = KAVO_FAILED, NO_MEMORY = KAVO_NO_MEMORY, OVERTIME = 1 };
  static int StatusOf(Step step) noexcept { return step == Step::OVERTIME ? KAVO_FAILED : static_cast<int>(step); }
  static bool IsFailure(Step step) noexcept { return step == Step::FAILED || step == Step::NO_MEMORY; }

  // What a thread has moved of a generation, added to the generation's counts at the end: others look at those
  // meanwhile.
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

  // The chain. BuildNext is MakeNewTable without its log lines: it throws std::bad_alloc, and what a lock throws.
  int BuildNext(Core* old, Core*& next);
  int SetNextHashCore(HeapPtr<Core> next);
  int UpdateHashCore(Core*& retired);
  void RetireIfEmptied(Core* core) noexcept;
  int HashTableGetSeqNum(const Core* core) const;

  // A hint. Acquire: the generation is looked into. Relaxed: GiveBackSome counts again.
  bool IsGiveBackDue() const noexcept {
    return m_giveBack.load(std::memory_order_acquire)->IsDeleted() && m_walks.load(std::memory_order_relaxed) == 0;
  }
  bool GiveBackSome() noexcept;

  // One bucket.

  // Makes the caller the bucket's mover if nobody is and it has not moved. Waits for nobody.
  BucketClaim TryClaimBucket(Core* core, const unsigned long long& bucket) noexcept {
    BucketFlags& flags = core->CellAt(bucket).flags;
    const std::uint8_t before = flags.TryBeginMove();
    if ((before & HCore::BUCKET_MOVED) != 0) {
      return BucketClaim::MOVED;
    }
    if ((before & HCore::BUCKET_MOVING) != 0) {
      return BucketClaim::BUSY;
    }
    if (core->IsDeleted()) {  // HashCore, I7
      flags.AbandonMove();
      return BucketClaim::MOVED;
    }
    return BucketClaim::OWNED;
  }
  // The same, but waits for another mover to end: never BUSY. FAILED: logged.
  BucketClaim ClaimBucket(Core* core, const unsigned long long& bucket) {
    for (;;) {
      const BucketClaim claim = TryClaimBucket(core, bucket);
      if (claim != BucketClaim::BUSY) {
        return claim;
      }
      if (core->RehashAcquire(bucket) != KAVO_SUCCESS) {
        return BucketClaim::FAILED;
      }
      if (core->IsDeleted()) {
        return BucketClaim::MOVED;
      }
    }
  }
  // Moves one bucket, whoever has it: DONE when MOVED is set. OVERTIME: another thread had it for too long.
  Step MoveBucket(Core* src, const unsigned long long& bucket, Core* dst, MovedCount& moved) {
    switch (ClaimBucket(src, bucket)) {
      case BucketClaim::OWNED:
        return MoveClaimedBucket(src, bucket, dst, moved) == KAVO_SUCCESS ? Step::DONE : Step::FAILED;
      case BucketClaim::MOVED:
        return Step::DONE;
      default:
        return Step::OVERTIME;
    }
  }
  int MoveClaimedBucket(Core* src, const unsigned long long& bucket, Core* dst, MovedCount& moved);
  int PassOverMiddle(Core* src, Core* middle, const unsigned long long& bucket);
  int RehashInsertBucket(Core* src, const unsigned long long& bucket, Core* dst, unsigned long long& entries);
  int CopyEntry(Core* src, const Key& key, const Value& record, Core* dst, unsigned long long& entries,
                const char* caller);
  // Waits while an insert fills the record; false when that took too long, which the caller logs.
  static bool WaitForRecord(const Value& record) {
    Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
    while (record.State() == RecordState::FILLING) {
      KAVO_TEST_POINT("Mover.WaitForRecord");
      if (!waiter.Pause()) {
        return false;
      }
    }
    return true;
  }

  // A whole generation.
  Step MoveAndRetire(Core* src, Core* dst, const char* caller);
  Step MoveTogether(Core* src, Core* dst);
  int MoveChunk(Core* src, Core* dst, unsigned long long first, unsigned long long last);

  // Gradual growth.
  Step BeginGredualMigration(Core* core, const unsigned long long& bucket);
  Step AddNewTableAndRehash(Core* old, const unsigned long long& bucket);
  Step RehashOneBucket(Core* old, const unsigned long long& bucket, Core* next);

  // Set before the first insert, or while none runs.
  Atomic<std::uint8_t> m_rehashType{REHASH_WHOLE_TABLE};
  // The pointer that retiring a generation advances. Written with one and the same value by whoever starts to migrate.
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
  // The first retired generation that has cells still, or else the first that is not retired. Written under
  // m_giveBackMutex.
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
