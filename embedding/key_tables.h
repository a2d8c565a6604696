// From a caller's keys to rows in tables of the base.
//
// A key's lower 63 bits are mixed one to one (MixKey of kavo.hpp), which gives the key in the table; its sign bit stays
// out of that and chooses between two tables, the second made when the first negative key comes. A TAG is both: the
// mixed key with the sign bit above it, so tags are as one-to-one as keys.
//
// Which bits of a mixed key serve for what:
//
//   0-31    bucket in the table
//   32-62   owner among servers: (m >> 32) mod n
//   62-...  downwards: partition in a backward call, so that threads share no row
//
// All calls may run at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "kavo.hpp"
#include "platform/atomic.h"
#include "platform/mutex.h"

namespace Qen {

using Tag = std::uint64_t;

inline constexpr Tag SIGN = Tag{1} << 63;

inline Tag TagOf(long key) noexcept {
  const auto bits = static_cast<Tag>(key);
  return (bits & SIGN) | static_cast<Tag>(kavo::MixKey(key));
}
inline long KeyOf(Tag tag) noexcept {
  return static_cast<long>((tag & SIGN) | static_cast<Tag>(kavo::UnmixKey(static_cast<long>(tag & ~SIGN))));
}

// Which of n servers owns a key.
inline unsigned OwnerOf(Tag tag, unsigned n) noexcept {
  return static_cast<unsigned>(((tag & ~SIGN) >> 32) % n);
}

class KeyTables {
 public:
  // Tags that one call of Find or Offer takes at most.
  static constexpr std::size_t BLOCK = 512;

  struct Shape {
    unsigned expected;
    unsigned rowBytes;
    unsigned admission;  // above 1: filter tables
    unsigned growth;
  };

  explicit KeyTables(const Shape& shape) noexcept : m_shape(shape) {}
  KeyTables(const KeyTables&) = delete;
  KeyTables& operator=(const KeyTables&) = delete;
  ~KeyTables();

  // Makes the table of keys that are not negative: before anything else. Statuses are the base's, here and below.
  int MakeFirst() { return Make(0); }

  // rows[i] is the row's value in the table, null for a key that is absent or only counted; `there`, if wanted, counts
  // the others.
  int Find(const Tag* tags, std::size_t num, unsigned char** rows, std::size_t* there = nullptr) const;

  // Offers each, counts[i] times, in order (0 gives a new key its row at once); rows as in Find.
  int Offer(const Tag* tags, std::size_t num, const unsigned* counts, unsigned char** rows);

  // Counts an absent key of a filter table that often, and gives it no row. KAVO_INVALID for a key that is there.
  int Count(Tag tag, unsigned count);

  // The tables that there are, the second never without the first. (None after a load that failed for memory, until the
  // next key comes.)
  unsigned Num() const noexcept {
    return m_made[1].load(std::memory_order_acquire) ? 2 : m_made[0].load(std::memory_order_acquire) ? 1 : 0;
  }
  unsigned Id(unsigned table) const noexcept { return m_ids[table]; }
  const Shape& Made() const noexcept { return m_shape; }

 private:
  int Make(unsigned table);
  template <class Call>
  int OnBoth(const Tag* tags, std::size_t num, unsigned char** rows, const Call& call) const;

  const Shape m_shape;
  Mutex m_mutex;  // guards making
  // An id is written before `made` is, with release, and read after it, with acquire.
  unsigned m_ids[2] = {};
  Atomic<bool> m_made[2] = {};
};

}  // namespace Qen
