#include "stress/soak_table.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace KavoTest {
namespace {

constexpr unsigned CALLS = 256;  // about, in one visit
constexpr std::size_t SPREAD = 64;

std::atomic_ref<std::uint64_t> Word(unsigned char* address, std::size_t at) {
  return std::atomic_ref<std::uint64_t>(reinterpret_cast<std::uint64_t*>(address)[at]);
}

std::uint64_t Proof(long key) {
  return static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15ULL | 1;
}

}  // namespace

void SoakTotals::Expect(bool right, const std::string& what) {
  if (!right && ++mismatches <= 20) {
    std::fprintf(stderr, "MISMATCH %s\n", what.c_str());
  }
}

SoakTable::SoakTable(unsigned place, unsigned threads, std::size_t keys, SoakTotals& totals)
    : m_place(place), m_totals(totals), m_owned(threads), m_shared(keys / 2) {
  for (Owned& owned : m_owned) {
    owned.addresses.assign(keys / 2 / threads, nullptr);
    owned.versions.assign(keys / 2 / threads, 0);
  }
}

void SoakTable::Expect(bool right, const char* what, long key) const {
  if (!right) {
    m_totals.Expect(false, std::string(what) + ": table " + std::to_string(m_shape.id) + ", key " +
                               std::to_string(key) + (IsFilter() ? ", filter" : ", basic") + ", size " +
                               std::to_string(m_shape.size));
  }
}

// Different for every index.
long SoakTable::KeyOf(std::size_t index) const {
  constexpr std::uint64_t BITS = (1ULL << 62) - 1;
  if (m_shape.keyStyle == 1) {
    return static_cast<long>(index);
  }
  if (m_shape.keyStyle == 2) {
    return static_cast<long>(index << 22);  // a thousand buckets
  }
  if (m_shape.keyStyle == 3 && index % 256 == 0) {
    return static_cast<long>(1ULL << 62 | index << 32);  // one bucket
  }
  std::uint64_t key = (index ^ m_shape.keySeed) & BITS;
  key = key * 0x9E3779B97F4A7C15ULL & BITS;
  key ^= key >> 31;
  return static_cast<long>(key * 0xD6E8FEB86659FD93ULL & BITS);
}

void SoakTable::FillValue(std::vector<unsigned char>& value, long key, std::uint32_t version) const {
  value.resize(m_shape.valueLen);
  std::uint64_t word = Proof(key) + version;
  for (std::size_t at = 0; at < value.size(); at += sizeof(word), word = word * 6364136223846793005ULL + 1) {
    std::memcpy(&value[at], &word, std::min(sizeof(word), value.size() - at));
  }
}

void SoakTable::Visit(unsigned thread, Random& random) {
  {
    const std::shared_lock<std::shared_mutex> life(m_life);
    if (m_alive && !m_full.load()) {
      const unsigned dice = static_cast<unsigned>(random() % 64);
      if (dice < 40) {
        const std::shared_lock<std::shared_mutex> inserting(m_inserting);
        InsertSome(thread, random);
      } else if (dice < 60) {
        LookUpSome(thread, random);
      } else if (dice == 60) {
        Export(KAVO_EXPORT_ALL, random, true);
        KavoTableStats stats{};
        stats.size = sizeof(stats);
        Expect(KavoGetTableStats(m_shape.id, &stats) == KAVO_SUCCESS && stats.generations >= 1, "statistics", 0);
      } else if (const std::unique_lock<std::shared_mutex> alone(m_inserting, std::try_to_lock); alone.owns_lock()) {
        if (dice == 61) {
          const unsigned mode = random() % 2 == 0 ? KAVO_REHASH_GRADUAL : KAVO_REHASH_WHOLE_TABLE;
          Expect(KavoSetRehashMode(m_shape.id, mode) == KAVO_SUCCESS, "rehash mode", 0);
        } else {
          CheckCount(random);
        }
      }
      return;
    }
  }
  const std::unique_lock<std::shared_mutex> life(m_life, std::try_to_lock);
  if (life.owns_lock()) {
    if (m_alive && m_full.load()) {
      CheckAll(random);
    }
    if (!m_alive) {
      Begin(random);
    }
  }
}

void SoakTable::End(Random& random) {
  const std::unique_lock<std::shared_mutex> life(m_life);
  if (m_alive) {
    CheckAll(random);
  }
}

void SoakTable::Begin(Random& random) {
  static constexpr unsigned SIZES[] = {1, 8, 100, 1000, 20'000, 200'000};
  static constexpr unsigned LENGTHS[] = {16, 20, 64, 257};
  m_shape.id = static_cast<unsigned>(random() % 2 == 0 ? m_place * 30 + random() % 30
                                                       : 100'000 * (m_place + 1) + random() % 100'000);
  m_shape.type = random() % 3 == 0 ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC;
  m_shape.size = SIZES[random() % std::size(SIZES)];
  m_shape.valueLen = LENGTHS[random() % std::size(LENGTHS)];
  m_shape.frequency = static_cast<unsigned>(2 + random() % 12);
  m_shape.keyStyle = static_cast<unsigned>(random() % 4);
  m_shape.keySeed = random();
  // As many small tables as large ones.
  const std::size_t part = std::size_t{1} << random() % 9;
  m_shape.ownedGoal = m_owned[0].addresses.size() / part;
  m_shape.sharedGoal = m_shared.size() / part;
  if (m_shape.keyStyle == 2) {
    m_shape.ownedGoal /= 8;  // a search there is linear in the number of keys
    m_shape.sharedGoal /= 8;
  }
  for (Owned& owned : m_owned) {
    owned.count = 0;
  }
  for (Shared& shared : m_shared) {
    shared.address = nullptr;
    shared.offersBegun = shared.offers = shared.creators = 0;
  }
  m_sharedBegun = 0;
  m_increments = 0;
  m_prepared = 0;
  const unsigned id = m_shape.id;
  Expect(KavoInitHashTable(id, m_shape.size, m_shape.valueLen, m_shape.type) == KAVO_SUCCESS, "create", 0);
  Expect(KavoInitHashTable(id, 8, 8, KAVO_TABLE_TYPE_BASIC) == KAVO_EXISTS, "create again", 0);
  Expect(KavoSetRehashMode(id, random() % 2 == 0 ? KAVO_REHASH_GRADUAL : KAVO_REHASH_WHOLE_TABLE) == KAVO_SUCCESS,
         "rehash mode", 0);
  Expect(KavoSetFilterFreq(id, m_shape.frequency) == (IsFilter() ? KAVO_SUCCESS : KAVO_INVALID), "frequency", 0);
  if (random() % 4 == 0) {
    Prepare(random);
  }
  m_full = false;
  m_alive = true;
}

// The first shared keys adopt values that were written beforehand.
void SoakTable::Prepare(Random& random) {
  unsigned long long count = 0;
  Expect(KavoPrepareMemForValues(m_shape.id, &count) == KAVO_SUCCESS && count == std::max(m_shape.size, 8U), "prepare",
         0);
  m_prepared = std::min<std::size_t>({random() % 1000, count, m_shape.sharedGoal});
  for (std::size_t n = 0; n < m_prepared; ++n) {
    unsigned char* address = nullptr;
    unsigned length = 0;
    const int ret = KavoGetMemForValue(m_shape.id, n, &address, &length);
    Expect(ret == KAVO_SUCCESS && length == m_shape.valueLen, "value memory", SharedKey(n));
    if (ret == KAVO_SUCCESS) {
      Word(address, 0).store(Proof(SharedKey(n)));
      m_shared[n].address = address;
    }
  }
  for (std::size_t n = 0; n < m_prepared; ++n) {
    unsigned char* address = nullptr;
    unsigned length = 0;
    unsigned isFind = 9;
    const int ret = KavoLookupOrInsert(m_shape.id, SharedKey(n), &address, &length, &isFind, 0);
    Expect(ret == KAVO_SUCCESS && isFind == 1 && address == m_shared[n].address, "adopted value", SharedKey(n));
  }
  m_sharedBegun = m_prepared;
}

void SoakTable::InsertSome(unsigned thread, Random& random) {
  for (unsigned n = 0; n < CALLS / 4; ++n) {
    if (m_owned[thread].count < m_shape.ownedGoal) {
      InsertOwned(thread, random);
    }
    // A new key, or one that others are at as well.
    std::size_t begun = m_sharedBegun;
    std::size_t at = m_shape.sharedGoal;
    if (begun == 0 || random() % 4 == 0) {
      at = begun < m_shape.sharedGoal ? m_sharedBegun++ : at;
    } else {
      at = begun - 1 - random() % std::min(begun, SPREAD);
    }
    if (at < m_shape.sharedGoal) {
      const unsigned occurrences = static_cast<unsigned>(1 + random() % 3);
      unsigned char* address = nullptr;
      unsigned length = 0;
      unsigned isFind = 9;
      const Offered before = BeginOffer(at, occurrences);
      const int ret = KavoLookupOrInsert(m_shape.id, SharedKey(at), &address, &length, &isFind, occurrences);
      EndOffer(at, occurrences, before, ret, address, isFind);
    } else if (begun >= m_shape.sharedGoal && random() % 64 == 0) {
      m_full = true;
    }
    if (n % 16 == 0 && IsFilter()) {
      Expect(KavoSetFilterFreq(m_shape.id, m_shape.frequency) == KAVO_SUCCESS, "frequency", 0);
    }
  }
  InsertOwnedBatch(thread, random);
  OfferBatch(random);
  m_totals.calls += CALLS / 2 + 2;
  LookUpSome(thread, random);
}

void SoakTable::LookUpSome(unsigned thread, Random& random) {
  for (unsigned n = 0; n < CALLS / 2; ++n) {
    const unsigned other = static_cast<unsigned>(random() % m_owned.size());
    // Acquire: the address was written before.
    if (const std::size_t count = m_owned[other].count.load(std::memory_order_acquire); count != 0) {
      const std::size_t at = random() % count;
      if (other == thread && random() % 4 == 0) {
        UpdateOwned(thread, at, random);
      }
      CheckOwned(other, at);
      if (other == thread) {
        FillValue(m_owned[thread].seen, OwnedKey(thread, at), m_owned[thread].versions[at]);
        Expect(std::memcmp(m_owned[thread].addresses[at], m_owned[thread].seen.data(), m_shape.valueLen) == 0,
               "value of its owner", OwnedKey(thread, at));
      }
    }
    if (const std::size_t begun = std::min(m_sharedBegun.load(), m_shape.sharedGoal); begun != 0) {
      LookUpShared(random() % begun, random() % 8 == 0);
    }
  }
  LookUpBatch(thread, random);
  m_totals.calls += CALLS + 2;
}

void SoakTable::InsertOwned(unsigned thread, Random& random) {
  Owned& owned = m_owned[thread];
  const std::size_t n = owned.count;
  const long key = OwnedKey(thread, n);
  unsigned char* address = nullptr;
  unsigned length = 0;
  unsigned isFind = 9;
  if (random() % 8 == 0) {
    Expect(KavoLookup(m_shape.id, key, &address, &length) == KAVO_INVALID, "found before its insert", key);
  }
  owned.versions[n] = static_cast<std::uint32_t>(random());
  FillValue(owned.value, key, owned.versions[n]);
  const unsigned dice = static_cast<unsigned>(random() % 4);
  if (dice == 0) {
    const int ret = KavoLookupOrInsert(m_shape.id, key, &address, &length, &isFind, 0);
    const bool made = ret == KAVO_SUCCESS && isFind == 0 && address != nullptr;
    Expect(made, "look up or insert", key);
    if (made) {
      std::memcpy(address, owned.value.data(), owned.value.size());
    }
  } else {
    const int ret = dice == 1 ? KavoInsertOrUpdate(m_shape.id, key, owned.value.data(), m_shape.valueLen, 1)
                              : KavoInsert(m_shape.id, key, owned.value.data(), m_shape.valueLen, 1, 2);
    Expect(ret == KAVO_SUCCESS, "insert", key);
    Expect(KavoLookup(m_shape.id, key, &address, &length) == KAVO_SUCCESS, "found after its insert", key);
  }
  if (address == nullptr) {
    return;  // a mismatch, which ends the run
  }
  owned.addresses[n] = address;
  owned.count.store(n + 1, std::memory_order_release);  // see LookUpSome
}

void SoakTable::UpdateOwned(unsigned thread, std::size_t n, Random& random) {
  Owned& owned = m_owned[thread];
  const long key = OwnedKey(thread, n);
  const unsigned dice = static_cast<unsigned>(random() % 4);
  FillValue(owned.value, key, owned.versions[n] + 1);
  if (dice == 0) {
    Expect(KavoInsert(m_shape.id, key, owned.value.data(), m_shape.valueLen, 1, 2) == KAVO_INVALID, "insert again",
           key);
    return;
  }
  ++owned.versions[n];
  if (dice == 1) {
    Expect(KavoUpdate(m_shape.id, key, owned.value.data(), m_shape.valueLen) == KAVO_SUCCESS, "update", key);
  } else if (dice == 2) {
    Expect(KavoInsertOrUpdate(m_shape.id, key, owned.value.data(), m_shape.valueLen, 1) == KAVO_SUCCESS,
           "insert or update", key);
  } else {
    unsigned char* address = nullptr;
    unsigned length = 0;
    const int ret = KavoLookupForUpdate(m_shape.id, key, &address, &length);
    Expect(ret == KAVO_SUCCESS, "look up for update", key);
    if (ret == KAVO_SUCCESS) {
      std::memcpy(address, owned.value.data(), owned.value.size());
    }
  }
}

void SoakTable::CheckOwned(unsigned thread, std::size_t n) {
  unsigned char* address = nullptr;
  unsigned length = 0;
  const int ret = KavoLookup(m_shape.id, OwnedKey(thread, n), &address, &length);
  Expect(ret == KAVO_SUCCESS && address == m_owned[thread].addresses[n] && length == m_shape.valueLen,
         "a completed insert", OwnedKey(thread, n));
}

SoakTable::Offered SoakTable::BeginOffer(std::size_t n, unsigned occurrences) {
  const Offered before{m_shared[n].address.load() != nullptr, m_shared[n].offers};
  m_shared[n].offersBegun += occurrences;
  return before;
}

void SoakTable::EndOffer(std::size_t n, unsigned occurrences, Offered before, int ret, unsigned char* address,
                         unsigned isFind) {
  Shared& shared = m_shared[n];
  Expect(ret == KAVO_SUCCESS && isFind <= 1 && (address != nullptr || (IsFilter() && !before.known)),
         "look up or insert of a shared key", SharedKey(n));
  if (IsFilter() && n >= m_prepared) {
    Expect(
        address != nullptr ? shared.offersBegun >= m_shape.frequency : before.offers + occurrences < m_shape.frequency,
        address != nullptr ? "admitted early" : "not admitted", SharedKey(n));
  }
  shared.creators += isFind == 0;
  SeeShared(n, address);
  shared.offers += occurrences;
}

void SoakTable::LookUpShared(std::size_t n, bool forUpdate) {
  const bool known = m_shared[n].address.load() != nullptr;
  const bool offered = m_shared[n].offers != 0;
  unsigned char* address = nullptr;
  unsigned length = 0;
  const int ret = forUpdate ? KavoLookupForUpdate(m_shape.id, SharedKey(n), &address, &length)
                            : KavoLookup(m_shape.id, SharedKey(n), &address, &length);
  Expect(ret == KAVO_SUCCESS ? address != nullptr || (IsFilter() && !known) : ret == KAVO_INVALID && !known && !offered,
         "a shared key that was offered", SharedKey(n));
  SeeShared(n, address);
  if (forUpdate && address != nullptr) {
    Word(address, 1).fetch_add(1, std::memory_order_relaxed);
    ++m_increments;
  }
}

// One address a key, and a value that nobody else has.
void SoakTable::SeeShared(std::size_t n, unsigned char* address) {
  if (address == nullptr) {
    return;
  }
  unsigned char* expected = nullptr;
  Expect(m_shared[n].address.compare_exchange_strong(expected, address) || expected == address,
         "a second address of a key", SharedKey(n));
  std::uint64_t mark = 0;
  Expect(Word(address, 0).compare_exchange_strong(mark, Proof(SharedKey(n))) || mark == Proof(SharedKey(n)),
         "another key's value", SharedKey(n));
}

}  // namespace KavoTest
