// One place of the soak: a table, what it must hold, and the calls that threads make on it. When the table has as many
// keys as it is to have, it is checked as a whole, destroyed, and another of a different shape takes its place.
//
// Two kinds of keys. An owned key belongs to one thread, which alone touches its value bytes, by every call that copies
// bytes, and knows what they are; the other threads know its address. A shared key is offered by all threads through
// KavoLookupOrInsert, and its value (a proof of the key, and a counter) is accessed by atomic operations.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <random>
#include <shared_mutex>
#include <string>
#include <vector>

#include "kavo.h"

namespace KavoTest {

using Random = std::mt19937_64;

struct SoakTotals {
  std::atomic<unsigned long long> calls{0};
  std::atomic<unsigned long long> tables{0};
  std::atomic<unsigned long long> exports{0};
  std::atomic<unsigned long long> growths{0};
  std::atomic<unsigned> mismatches{0};

  // Says what is wrong, the first few times.
  void Expect(bool right, const std::string& what);
};

class SoakTable {
 public:
  SoakTable(unsigned place, unsigned threads, std::size_t keys, SoakTotals& totals);
  SoakTable(const SoakTable&) = delete;
  SoakTable& operator=(const SoakTable&) = delete;

  // Some hundred calls, or one that concerns the table as a whole.
  void Visit(unsigned thread, Random& random);

  // Checks and destroys the table. When no thread visits any more.
  void End(Random& random);

 private:
  struct Shape {
    unsigned id = 0;
    unsigned type = KAVO_TABLE_TYPE_BASIC;
    unsigned size = 0;
    unsigned valueLen = 0;
    unsigned frequency = 0;  // of a filter table
    unsigned keyStyle = 0;
    std::uint64_t keySeed = 0;
    std::size_t ownedGoal = 0;
    std::size_t sharedGoal = 0;
  };
  struct Owned {
    std::atomic<std::size_t> count{0};       // keys whose insert has completed
    std::vector<unsigned char*> addresses;   // of those
    std::vector<std::uint32_t> versions;     // of their values; for the owner
    std::vector<unsigned char> value, seen;  // the owner's scratch
  };
  struct Offered {  // what was known before the call
    bool known;
    std::uint32_t offers;
  };
  struct Shared {
    std::atomic<unsigned char*> address{nullptr};
    std::atomic<std::uint32_t> offersBegun{0};  // occurrences
    std::atomic<std::uint32_t> offers{0};       // occurrences whose calls have ended
    std::atomic<std::uint32_t> creators{0};
  };

  void Begin(Random& random);
  void Prepare(Random& random);
  void InsertSome(unsigned thread, Random& random);
  void LookUpSome(unsigned thread, Random& random);
  void InsertOwned(unsigned thread, Random& random);
  void UpdateOwned(unsigned thread, std::size_t n, Random& random);
  void CheckOwned(unsigned thread, std::size_t n);
  Offered BeginOffer(std::size_t n, unsigned occurrences);
  void EndOffer(std::size_t n, unsigned occurrences, Offered before, int ret, unsigned char* address, unsigned isFind);
  void InsertOwnedBatch(unsigned thread, Random& random);
  void OfferBatch(Random& random);
  void LookUpBatch(unsigned thread, Random& random);
  void LookUpShared(std::size_t n, bool forUpdate);
  void SeeShared(std::size_t n, unsigned char* address);
  void CheckAll(Random& random);
  void CheckMarking(std::size_t total, std::size_t counted, Random& random);
  // The keys that an export gives, each once.
  std::vector<long> Export(unsigned mode, Random& random, bool onlyLooking = false);
  void CheckCount(Random& random);

  std::size_t Total() const;
  bool IsFilter() const { return m_shape.type == KAVO_TABLE_TYPE_FILTER; }
  long KeyOf(std::size_t index) const;
  long OwnedKey(unsigned thread, std::size_t n) const { return KeyOf(m_shared.size() + n * m_owned.size() + thread); }
  long SharedKey(std::size_t n) const { return KeyOf(n); }
  void FillValue(std::vector<unsigned char>& value, long key, std::uint32_t version) const;
  void Expect(bool right, const char* what, long key) const;

  const unsigned m_place;
  SoakTotals& m_totals;
  std::shared_mutex m_life;       // shared: calls on the table; exclusive: its beginning and its end
  std::shared_mutex m_inserting;  // shared: inserts of new keys; exclusive: what must not run beside them
  Shape m_shape;                  // guarded by m_life, as is the next
  bool m_alive = false;
  std::atomic<bool> m_full{false};
  std::vector<Owned> m_owned;  // by thread
  std::vector<Shared> m_shared;
  std::atomic<std::size_t> m_sharedBegun{0};
  std::size_t m_prepared = 0;  // shared keys that adopted values
  std::atomic<std::uint64_t> m_increments{0};
};

}  // namespace KavoTest
