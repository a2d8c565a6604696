// One cell of a generation.
//
//   byte 0      flags       state of the bucket whose home cell this is (bucket_flags.h)
//   byte 1      moveClaim   on the first cell of a chunk: the chunk's state in a whole-table move
//   byte 2      firstLink   distance to the first further cell of this bucket's chain, 0 for none
//   byte 3      nextLink    distance to the next cell of the chain that this cell's key belongs to, 0 for none
//   bytes 4-7   value       record of the key (value_record.h)
//   bytes 8-15  key         complemented; once set, it stays
//
// A cell has two roles at once: as a home cell it carries its bucket's flags and first link; as a storage cell it
// carries one key, which may belong to another bucket whose probe took the cell. Four cells share a cache line, and a
// key found in its home cell costs that one line.
//
// All bytes zero is the initial state, so a generation is a range of zero pages that nobody has to write.
#pragma once

#include <cstdint>

#include "hash/bucket_flags.h"
#include "hash/hcore.h"
#include "platform/atomic.h"

namespace Qen {

// A distance in cells, 0 for the end of a chain. Set once; a second writer, who found the same claimed cell behind the
// same chain end, writes the same distance.
class ChainLink {
 public:
  // Acquire: pairs with Set, so that the key of the linked cell is seen with the link.
  unsigned Distance() const noexcept { return m_distance.load(std::memory_order_acquire); }
  // Release: after the key, see Distance.
  void Set(unsigned long long distance) noexcept {
    m_distance.store(static_cast<std::uint8_t>(distance), std::memory_order_release);
  }

#ifdef KAVO_TESTING
  void Clear() noexcept {
    m_distance.store(0, std::memory_order_relaxed);
  }  // see HashCell::Clear
#endif

 private:
  Atomic<std::uint8_t> m_distance;
};

// A chunk's state in a whole-table move: unclaimed, claimed by one thread, finished. A chunk whose move failed is
// given back.
class ChunkClaim {
 public:
  // Acquire: whoever takes a chunk that was given back sees what its last owner did.
  bool TryTake() noexcept {
    std::uint8_t expected = UNCLAIMED;
    return m_state.load(std::memory_order_relaxed) == UNCLAIMED &&  // relaxed: the exchange decides
           m_state.compare_exchange_strong(expected, CLAIMED, std::memory_order_acquire, std::memory_order_relaxed);
  }
  // Release: pairs with TryTake.
  void GiveBack() noexcept { m_state.store(UNCLAIMED, std::memory_order_release); }
  // Relaxed: only keeps others from taking it; that a generation is empty is known from its count of finished chunks.
  void Finish() noexcept { m_state.store(FINISHED, std::memory_order_relaxed); }

#ifdef KAVO_TESTING
  void Clear() noexcept {
    m_state.store(UNCLAIMED, std::memory_order_relaxed);
  }  // see HashCell::Clear
#endif

 private:
  static constexpr std::uint8_t UNCLAIMED = 0;
  static constexpr std::uint8_t CLAIMED = 1;
  static constexpr std::uint8_t FINISHED = 2;

  Atomic<std::uint8_t> m_state;
};

template <class Key, class Value>
class HashCell {
 public:
  // Acquire: whoever finds nothing looks at HashCore::IsDeleted next, and not before.
  Key LoadKey() const noexcept { return Decode(m_storedKey.load(std::memory_order_acquire)); }

  // Claims the cell for `key` if it is empty; otherwise `observed` is the key that it holds. Strong, because a cell
  // passed over by mistake would break the rule that a chain's gaps are taken. Relaxed: the claim is published by the
  // link and by the confirmation of the bucket's flags.
  bool ClaimKey(Key key, Key& observed) noexcept {
    std::uint64_t expected = 0;
    if (m_storedKey.compare_exchange_strong(expected, Encode(key), std::memory_order_relaxed,
                                            std::memory_order_relaxed)) {
      return true;
    }
    observed = Decode(expected);
    return false;
  }

#ifdef KAVO_TESTING
  // What giving the cell's page back to the system does to it, for generations that are too small to have pages: so
  // that small tables too meet their late readers. Relaxed: the system orders nothing either.
  void Clear() noexcept {
    flags.Clear();
    moveClaim.Clear();
    firstLink.Clear();
    nextLink.Clear();
    value.Clear();
    m_storedKey.store(0, std::memory_order_relaxed);
  }
#endif

 private:
  static std::uint64_t Encode(Key key) noexcept {
    return ~static_cast<std::uint64_t>(key);
  }
  static Key Decode(std::uint64_t stored) noexcept {
    return static_cast<Key>(~stored);
  }
  static_assert(HCore::EMPTY_KEY == -1, "the stored form of the empty key must be zero");

  // In the order of the drawing above.
 public:
  BucketFlags flags;
  ChunkClaim moveClaim;
  ChainLink firstLink;
  ChainLink nextLink;
  Value value;

 private:
  Atomic<std::uint64_t> m_storedKey;
};

}  // namespace Qen
