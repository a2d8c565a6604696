// One place of the soak: a table, what it must hold, and the calls that threads make on it. When the table has as many
// keys as it is to have, it is checked as a whole, destroyed, and another of a different shape takes its place.
//
// Two kinds of keys. An owned key belongs to one thread, whose CallRunner makes every kind of call on it and knows the
// answer. A shared key is offered by all threads through KavoLookupOrInsert or its batch, and its value (a proof of the
// key, and a counter) is accessed by atomic operations.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <shared_mutex>
#include <vector>

#include "model/call_runner.h"

namespace KavoTest {

using Random = std::mt19937_64;

struct SoakTotals {
  std::atomic<unsigned long long> calls{0};
  std::atomic<unsigned long long> tables{0};
  std::atomic<unsigned long long> growths{0};
  std::atomic<unsigned> mismatches{0};
};

class SoakTable {
 public:
  // At most about `keys`, half of them shared.
  SoakTable(unsigned place, unsigned threads, std::size_t keys, SoakTotals& totals);
  SoakTable(const SoakTable&) = delete;
  SoakTable& operator=(const SoakTable&) = delete;

  // Some hundred calls, or one that concerns the table as a whole. Throws Mismatch.
  void Visit(unsigned thread, Random& random);

  // Checks and destroys the table. When no thread visits any more.
  void End();

 private:
  struct Shared {
    std::atomic<unsigned char*> address{nullptr};
    std::atomic<std::uint32_t> offersBegun{0};  // occurrences
    std::atomic<std::uint32_t> offers{0};       // occurrences whose calls have ended
    std::atomic<std::uint32_t> creators{0};
    std::atomic<std::uint32_t> increments{0};  // of the counter
  };

  void Begin(Random& random);
  void Work(unsigned thread, bool inserts, Random& random);
  void CallOnOwned(unsigned thread, bool inserts, Random& random);
  void OfferShared(Random& random);
  void LookUpShared(Random& random);
  void SeeShared(std::size_t n, unsigned char* address);
  void CheckSize();
  void WalkBesideInserts();

  ModelEntries& OwnedBy(unsigned thread) { return m_runners[thread]->Model().Table(m_id)->entries; }
  std::size_t SharedBegun() const { return std::min(m_sharedBegun.load(), m_sharedGoal); }
  unsigned Frequency() const { return m_shape.threshold + 1; }
  long SharedKey(std::size_t n) const;

  const unsigned m_place;
  const unsigned m_threads;
  const std::size_t m_keys;
  SoakTotals& m_totals;
  std::shared_mutex m_life;       // shared: calls on the table; exclusive: its beginning and its end
  std::shared_mutex m_inserting;  // shared: inserts of new keys; exclusive: what must not run beside them
  // Set at the table's beginning.
  bool m_alive = false;
  unsigned m_id = 0;
  ModelTable m_shape{KAVO_TABLE_TYPE_BASIC, 0, 0};  // without entries
  KeyFamily m_family = KeyFamily::DENSE;
  unsigned m_firstIndex = 0;
  std::size_t m_ownedGoal = 0;  // of each thread
  std::size_t m_sharedGoal = 0;

  std::atomic<bool> m_full{false};
  std::vector<std::unique_ptr<CallRunner>> m_runners;  // by thread
  std::vector<Shared> m_shared;
  std::atomic<std::size_t> m_sharedBegun{0};
};

}  // namespace KavoTest
