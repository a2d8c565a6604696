// One generation of a table: a power-of-two array of cells, and the search and insertion of a key in it.
//
// WHERE A KEY LIVES. The low bits of the key name its home cell; all keys with one home form a bucket. A key is in its
// home cell, or in a further cell of the bucket's chain (linked from the home cell by one-byte distances), or in the
// bucket's overflow map. It enters the first of these that has room, chain before map, and stays there.
//
// CONTRACT. Any number of threads may search and insert at once; construction and destruction are the owner's alone.
//   FindValueProcess      waits for nobody; takes a lock (shared) only in a bucket with an overflow map.
//   InsertOrFindProcess   waits for the end of a bucket's move and for a map that another thread is creating.
// Neither takes a block: a new key's record is handed back FILLING, and the caller attaches the block.
//
// INVARIANTS
//   I1  A stored key stays, and so does a link that was set: the path to a key never breaks.
//   I2  All cells between two neighbours of a chain hold keys, and so do all cells within reach behind its end once a
//       probe has found no room there. A probe that meets a claimed cell of its own bucket links it before going on.
//       So one key is never in two cells, and a bucket's map comes into being only when every cell in reach is taken.
//   I3  A claim counts only once it was confirmed: the key is claimed, then linked, then the bucket's flags are
//       confirmed (BucketFlags::ConfirmInPlace). A claim that a mover has overtaken is withdrawn (VACANT) and made
//       again where the bucket went. No record holds a block before that, so no reader sees an unconfirmed one.
//   I4  Map bits are read before the walk along the chain. (A map seen after the walk may have come into being behind
//       the walk's back, together with cells that the walk has not seen.)
//   I5  For copies that a mover makes, and for nothing else, a key enters the next generation before its bucket here
//       has MOVED.
//   I6  Once MOVING is set no key enters: claims fail their confirmation, and the map is entered only after a look at
//       the flags under its lock. What the mover finds is all there is; it waits only for records in FILLING and for
//       a map being built, whose owners wait for nobody.
//   I7  The cells of a retired generation (one that growth has emptied and passed: m_deleted) may turn to zero at any
//       moment, under a thread that came from the time when it was in use: their memory goes back to the system.
//       Whatever block a search finds is right all the same. What zero cells could make a thread believe counts only
//       after a look at m_deleted that came later: that a key is absent, a claim confirmed, a map created or entered,
//       a bucket or chunk its own to move.
//
// The longer steps of an insert are in hash_core_insert.h. Moves: hash_core_migration.h.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <new>
#include <shared_mutex>

#include "hash/generation_iterator.h"
#include "hash/hash_cell.h"
#include "hash/hcore.h"
#include "hash/log_unit.h"
#include "hash/map_index.h"
#include "hash/overflow_map.h"
#include "hash/value_record.h"
#include "platform/allocation.h"
#include "platform/atomic.h"
#include "platform/block_directory.h"
#include "platform/cache_line.h"
#include "platform/test_hooks.h"
#include "platform/wait.h"

namespace Qen {

template <class Key, class Value, class KTraits, class VTraits>
class HashCore {
 public:
  using Cell = HashCell<Key, Value>;
  using Map = OverflowMap<Key, Value>;
  using Pointee = typename Value::Pointee;
  using iterator = GenerationIterator<HashCore, Key, Value>;

  // What a search for a key ended at.
  struct Entry {
    Pointee* block = nullptr;  // the key's, if it has one: not its record, whose cell may be given back
    Value* record = nullptr;   // FILLING and the caller's to fill; its cell stays until it is filled
  };

  // What a search came to, or one of its steps.
  enum class Outcome {
    FOUND,      // the entry has the key's block
    CLAIMED,    // the entry has the record; the claim is confirmed
    BUSY,       // another thread owns the record (FILLING)
    FULL,       // nothing stored: the generation has more maps than it should, and must grow
    NO_MEMORY,  // nothing stored; logged
    FAILED,     // nothing stored; logged
    // Of steps alone: Search goes on.
    MOVING,   // the bucket is being moved, or was: wait for the end of the move, then look at the flags again
    AGAIN,    // look at the flags again at once
    IN_MAP,   // not in the cells; the bucket has a map, or gets one
    NO_ROOM,  // not in the cells, and all within reach are taken
  };

  // An insert obeys the growth threshold; the placing of a moved entry does not, or a move could not end. A step that
  // both take logs a failure under the name that hosts know it by there.
  enum class Purpose { INSERT, PLACE };

  // Whether a search that goes through an overflow map and finds nothing writes its log line.
  enum class OnMiss { LOG, QUIET };

  // A generation of at least `size` cells (at least 8). Throws std::bad_alloc, logged.
  HashCore(const unsigned long long& size, const BlockDirectory& blocks) : m_blocks(blocks) {
    static_assert(sizeof(Cell) == 16, "four cells to a cache line");
    try {
      if (size > (1ULL << 63)) {
        throw std::bad_alloc();
      }
      m_tableSize = size <= 8 ? 8 : std::bit_ceil(size);
      m_cellMemory = ZeroedRange(m_tableSize, sizeof(Cell));
      m_maps = MapIndex<Map>(m_tableSize);
    } catch (const std::exception& e) {
      KAVO_LOG_EVENT(TABLE_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
      throw std::bad_alloc();
    }
    // Zero bytes are the initial state of a cell; nobody writes them.
    m_cells = static_cast<Cell*>(m_cellMemory.Data());
    m_mask = m_tableSize - 1;
    m_maxMapNum = static_cast<unsigned long long>(static_cast<float>(m_tableSize) * HCore::MAP_RATIO);
  }
  HashCore(const HashCore&) = delete;
  HashCore& operator=(const HashCore&) = delete;
  ~HashCore() = default;  // cells own nothing: one that nobody touched stays untouched to the end

  // Lookup.

  // The key's block in this generation, else null.
  Pointee* FindValueProcess(const Key& key) const {
    const std::uint64_t home = HomeIndex(key);
    return FindInBucket(key, home, CellAt(home).flags.Load());
  }

  // `flags` was read before the walk, and has no MOVED. An insert that completed before this lookup began is here,
  // linked and with its block, and if it went into the map then MAP_READY was set before: one reading of the flags is
  // enough. A record without a block belongs to an insert that has not finished, and reads as absent.
  // Null means absent only if this generation is not retired (I7).
  Pointee* FindInBucket(const Key& key, std::uint64_t home, std::uint8_t flags, OnMiss onMiss = OnMiss::LOG) const {
    Cell& homeCell = CellAt(home);
    const Key homeKey = homeCell.LoadKey();
    if (homeKey == key) {
      return BlockOf(homeCell.value);
    }
    if (homeKey == HCore::EMPTY_KEY) {
      return nullptr;  // an insert fills the home cell first: the bucket has no keys at all
    }
    std::uint64_t position = home;
    for (unsigned distance = homeCell.firstLink.Distance(); distance != 0;) {
      position += distance;
      Cell& cell = CellAt(position);
      if (cell.LoadKey() == key) {
        return BlockOf(cell.value);
      }
      distance = cell.nextLink.Distance();
    }
    // A map still being built holds only the key of the insert that builds it.
    return (flags & HCore::MAP_READY) == 0 ? nullptr : MapFind(key, home, onMiss);
  }

  // The same if the key stands in its home cell. Null proves nothing.
  Pointee* FindAtHome(const Key& key) const noexcept {
    const Cell& home = CellAt(HomeIndex(key));
    return home.LoadKey() == key ? BlockOf(home.value) : nullptr;
  }

  // Insert.

  // Finds `key` or claims a place for it: in `core`, or where its bucket has moved to; `core` is that generation then.
  static Outcome Search(const Key& key, Purpose purpose, HashCore*& core, Entry& entry);

  // The search of an insert, from this generation on; `core` is the generation where it ended. ENTRY_FOUND: the entry
  // has the key's block, or nothing while another thread owns the record. ENTRY_INSERTED: the entry has the record.
  // MUST_GROW: `core` has more overflow maps than it should; with a record in the entry the key is claimed as for
  // ENTRY_INSERTED, without one nothing was stored. KAVO_FAILED, KAVO_NO_MEMORY: logged.
  int InsertOrFindProcess(const Key& key, Entry& entry, HashCore*& core) {
    core = this;
    switch (Search(key, Purpose::INSERT, core, entry)) {
      case Outcome::FOUND:
      case Outcome::BUSY:
        return ENTRY_FOUND;
      case Outcome::CLAIMED:
        return core->IsOverMapThreshold() ? MUST_GROW : ENTRY_INSERTED;
      case Outcome::FULL:
        return MUST_GROW;
      case Outcome::NO_MEMORY:
        return KAVO_NO_MEMORY;
      default:
        return KAVO_FAILED;
    }
  }

  // Waits while the bucket's map is being built. IN_MAP: it is there. AGAIN: its creation was withdrawn. MOVING: the
  // generation is retired. FAILED: logged.
  Outcome MapExistAcquire(std::uint64_t home) const {
    Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
    for (;;) {
      const std::uint8_t flags = CellAt(home).flags.Load();
      if ((flags & HCore::MAP_READY) != 0) {
        return Outcome::IN_MAP;
      }
      if ((flags & HCore::MAP_BUILDING) == 0) {
        return Outcome::AGAIN;
      }
      if (IsDeleted()) {
        return Outcome::MOVING;  // I7
      }
      KAVO_TEST_POINT("HashCore.WaitForMap");
      if (!waiter.Pause()) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "MapExistAcquire overtime");
        return Outcome::FAILED;
      }
    }
  }

  // Waits while the bucket is being moved: until it has moved, or its move was given up. 0, or KAVO_FAILED.
  int RehashAcquire(const unsigned long long& bucket) const {
    Waiter waiter(HCore::WAIT_INTERVAL_US, HCore::MAX_WAIT_TIME);
    for (;;) {
      const std::uint8_t flags = CellAt(bucket).flags.Load();
      if ((flags & HCore::BUCKET_MOVED) != 0 || (flags & HCore::BUCKET_MOVING) == 0) {
        return KAVO_SUCCESS;
      }
      if (IsDeleted()) {
        return KAVO_SUCCESS;  // I7: everything has moved, whatever a late thread has made of these flags
      }
      KAVO_TEST_POINT("HashCore.WaitForMove");
      if (!waiter.Pause()) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashAcquire overtime");
        return KAVO_FAILED;
      }
    }
  }

  // Cells and maps.

  std::uint64_t HomeIndex(const Key& key) const noexcept {
    return KTraits::BucketBits(key) & static_cast<std::uint32_t>(m_mask);
  }
  // Null while the record has none.
  Pointee* BlockOf(const Value& record) const noexcept { return record.Get(m_blocks); }
  const BlockDirectory& Blocks() const noexcept { return m_blocks; }

  // The bucket's map; null if it has none.
  Map* FindMap(std::uint64_t home) const noexcept { return m_maps.Find(home); }

  // A position counted from a home cell on may exceed the mask once it has wrapped.
  Cell& CellAt(std::uint64_t position) const noexcept {
    return m_cells[static_cast<std::uint32_t>(position) & static_cast<std::uint32_t>(m_mask)];
  }
  unsigned long long TableSize() const noexcept { return m_tableSize; }
  // A home has 32 bits, so no key reaches a cell beyond 2^32.
  unsigned long long AddressableSize() const noexcept {
    return m_tableSize < MAX_ADDRESSABLE ? m_tableSize : MAX_ADDRESSABLE;
  }
  unsigned long long Mask() const noexcept { return m_mask; }
  unsigned long long MapNum() const noexcept { return m_mapNum.load(std::memory_order_relaxed); }
  unsigned long long MaxMapNum() const noexcept { return m_maxMapNum; }
  unsigned long long MapBytes() const noexcept { return m_mapBytes.load(std::memory_order_relaxed); }
  bool IsOverMapThreshold() const noexcept { return MapNum() > m_maxMapNum; }

  // Acquire and release: a generation is seen fully built.
  HashCore* Next() const noexcept { return m_nextHashCore.load(std::memory_order_acquire); }
  void PublishNext(HashCore* next) noexcept { m_nextHashCore.store(next, std::memory_order_release); }

  // A whole-table move is shared out in chunks of this many cells.
  unsigned long long ChunkSize() const noexcept {
    constexpr unsigned long long MAX_CHUNKS = 128;
    constexpr unsigned long long MIN_CHUNK_CELLS = 256;
    const unsigned long long size = AddressableSize();
    return std::max(size / MAX_CHUNKS, std::min(size, MIN_CHUNK_CELLS));
  }

  // Each bucket is counted once, by the thread that set MOVED, some time after that. Acquire and release: whoever finds
  // the generation emptied sees all copies, whoever made them. Relaxed for the entries: a statistic.
  void CountMoved(unsigned long long buckets, unsigned long long entries) noexcept {
    m_movedEntries.fetch_add(entries, std::memory_order_relaxed);
    m_movedBuckets.fetch_add(buckets, std::memory_order_acq_rel);
  }
  bool IsEmptied() const noexcept { return m_movedBuckets.load(std::memory_order_acquire) == AddressableSize(); }
  unsigned long long MovedEntries() const noexcept { return m_movedEntries.load(std::memory_order_relaxed); }

  // The next buckets for a thread that sweeps. A hint, hence relaxed.
  std::uint64_t TakeSweepPosition(std::uint64_t buckets) noexcept {
    return m_sweepPosition.fetch_add(buckets, std::memory_order_relaxed) & (AddressableSize() - 1);
  }

  // Gives the next piece of the cells' memory back to the system; false after the last. Of a retired generation, by one
  // thread at a time.
  bool GiveBackCells() noexcept {
    constexpr std::size_t PIECE_BYTES = 4U << 20;                          // two huge pages
    const std::size_t from = m_givenBack.load(std::memory_order_relaxed);  // of one thread at a time
    const std::size_t bytes = std::min(PIECE_BYTES, m_cellMemory.Bytes() - from);
    if (bytes == 0) {
      return false;
    }
    if (!m_cellMemory.GiveBack(from, bytes)) {
#ifdef KAVO_TESTING
      for (unsigned long long i = 0; i < m_tableSize; ++i) {
        m_cells[i].Clear();
      }
#endif
      return false;  // from the heap, or refused: it stays until the table is destroyed
    }
    m_givenBack.store(from + bytes, std::memory_order_relaxed);
    return from + bytes < m_cellMemory.Bytes();
  }
  // Bytes of cells that were not given back. Relaxed: a statistic.
  unsigned long long CellBytes() const noexcept {
    return m_cellMemory.Bytes() - m_givenBack.load(std::memory_order_relaxed);
  }

  // Retired: set under the chain's delete mutex when the current generation has passed this one. Acquire and release:
  // so has whoever sees it. See I7 for whoever came earlier.
  bool IsDeleted() const noexcept {
    return m_deleted.load(std::memory_order_acquire);
  }
  void MarkDeleted() noexcept {
    m_deleted.store(true, std::memory_order_release);
  }

  // Threads at work on this generation's move. Proves nothing about its end, hence relaxed.
  unsigned GetRehashNum() const noexcept {
    return m_rehashNum.load(std::memory_order_relaxed);
  }
  void AddRehashNum() noexcept {
    m_rehashNum.fetch_add(1, std::memory_order_relaxed);
  }
  void SubRehashNum() noexcept {
    m_rehashNum.fetch_sub(1, std::memory_order_relaxed);
  }

 private:
  static constexpr unsigned long long MAX_ADDRESSABLE = 1ULL << 32;

  static bool HasMapBits(std::uint8_t flags) noexcept {
    return (flags & (HCore::MAP_BUILDING | HCore::MAP_READY)) != 0;
  }
  bool IsSameBucket(const Key& a, const Key& b) const noexcept {
    return HomeIndex(a) == HomeIndex(b);
  }

  bool MustGrowFirst(Purpose purpose) const noexcept {
    return purpose == Purpose::INSERT && IsOverMapThreshold();
  }

  Pointee* MapFind(const Key& key, std::uint64_t home, OnMiss onMiss) const {
    Map* const map = FindMap(home);
    {
      std::shared_lock lock(map->mutex);
      const auto entry = map->entries.find(key);
      if (entry != map->entries.end()) {
        return BlockOf(entry->second);
      }
    }
    if (onMiss == OnMiss::LOG) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "key is not exist in map! bucketHead[%llu], tableSize[%llu]",
                     static_cast<unsigned long long>(home), m_tableSize);
    }
    return nullptr;
  }

  // The steps of Search, in bucket `home`. `flags` was read before, and has no MOVED.
  Outcome FindOrClaimCell(const Key& key, std::uint64_t home, std::uint8_t flags, Purpose purpose, Entry& entry);
  Outcome LinearSearch(const Key& key, std::uint64_t home, std::uint8_t flags, Purpose purpose, std::uint64_t tail,
                       ChainLink* link, Entry& entry);
  Outcome LinearAndMap(const Key& key, std::uint64_t home, Purpose purpose, Entry& entry);
  Outcome MapFindOrInsert(const Key& key, std::uint64_t home, std::uint8_t flags, Purpose purpose, Entry& entry);

  // The record of a key that is stored already.
  Outcome Examine(std::uint64_t home, std::uint8_t flags, Value& record, Entry& entry) {
    entry.block = BlockOf(record);
    if (entry.block != nullptr) {
      return Outcome::FOUND;  // final, moved or not
    }
    if ((flags & HCore::BUCKET_MOVING) != 0) {
      return Outcome::MOVING;
    }
    return record.TakeOver() ? ConfirmClaim(home, flags, record, entry) : Outcome::BUSY;
  }

  // I3. The caller owns `record` (FILLING); its key is claimed and linked.
  Outcome ConfirmClaim(std::uint64_t home, std::uint8_t flags, Value& record, Entry& entry) {
    KAVO_TEST_POINT("HashCore.Linked");
    if (!CellAt(home).flags.ConfirmInPlace(flags) || IsDeleted()) {
      record.Withdraw();
      return Outcome::MOVING;
    }
    KAVO_TEST_POINT("HashCore.Confirmed");
    entry.record = &record;
    return Outcome::CLAIMED;
  }

  // Where to look next for a key whose bucket here is being moved or has moved: the next generation, or this one again
  // if the move was given up and the generation is in use. Null: logged.
  HashCore* FindOrInsertCellInNext(std::uint64_t home, Purpose purpose) {
    if (RehashAcquire(home) != KAVO_SUCCESS) {
      if (purpose == Purpose::INSERT) {
        KAVO_LOG_ERROR(TABLE_LOG_UNIT, "RehashAcquire failed!");
      } else {
        KAVO_LOG_ERROR_AS("DoubleRehashCheck", TABLE_LOG_UNIT, "RehashAcquire failed! remainderIndex[%llu]",
                          static_cast<unsigned long long>(home));
      }
      return nullptr;
    }
    if ((CellAt(home).flags.Load() & HCore::BUCKET_MOVED) == 0 && !IsDeleted()) {
      return this;
    }
    HashCore* const next = Next();
    if (next == nullptr) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "Current key has been rehashed but m_nextHashCore is nullptr!");
    }
    return next;
  }

  // Fixed after construction.
  const BlockDirectory& m_blocks;
  Cell* m_cells = nullptr;
  unsigned long long m_mask = 0;
  unsigned long long m_tableSize = 0;
  unsigned long long m_linearSearchLen = HCore::LINEAR_SEARCH_LEN;
  unsigned long long m_maxMapNum = 0;

  // Atomic, written by any thread as the accessors say. Those that change once share the lines above, which every
  // operation reads; those that change often are kept off them.
  Atomic<HashCore*> m_nextHashCore{nullptr};
  Atomic<bool> m_deleted{false};
  Atomic<unsigned long long> m_mapNum{0};  // only ever grows; the threshold test is approximate, hence relaxed
  MapIndex<Map> m_maps;
  ZeroedRange m_cellMemory;
  Atomic<unsigned long long> m_givenBack{0};
  CacheLinePadding m_padding;
  Atomic<unsigned> m_rehashNum{0};
  Atomic<unsigned long long> m_movedBuckets{0};
  Atomic<unsigned long long> m_movedEntries{0};
  Atomic<std::uint64_t> m_sweepPosition{0};
  Atomic<unsigned long long> m_mapBytes{0};  // a statistic, hence relaxed
};

}  // namespace Qen

#include "hash/hash_core_insert.h"
