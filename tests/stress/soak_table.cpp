#include "stress/soak_table.h"

#include <array>
#include <cstring>
#include <iterator>
#include <mutex>

namespace KavoTest {
namespace {

constexpr std::size_t BATCH = 80;

std::atomic_ref<std::uint64_t> SharedWord(unsigned char* address, std::size_t at) {
  return std::atomic_ref<std::uint64_t>(reinterpret_cast<std::uint64_t*>(address)[at]);
}

std::uint64_t Proof(long key) {
  return static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15ULL | 1;
}

unsigned AnyMode(Random& random) {
  return random() % 2 == 0 ? KAVO_REHASH_GRADUAL : KAVO_REHASH_WHOLE_TABLE;
}

}  // namespace

SoakTable::SoakTable(unsigned place, unsigned threads, std::size_t keys, SoakTotals& totals)
    : m_place(place), m_threads(threads), m_keys(keys), m_totals(totals), m_runners(threads), m_shared(keys / 2) {}

// Different for every index; some in one bucket.
long SoakTable::SharedKey(std::size_t n) const {
  const KeyFamily family = n % 256 == 0 ? KeyFamily::EQUAL_LOW_32 : m_family;
  return KeyOfShare(KeyOf(family, m_firstIndex + static_cast<unsigned>(n)), m_threads, m_threads + 1);
}

void SoakTable::Visit(unsigned thread, Random& random) {
  {
    const std::shared_lock<std::shared_mutex> life(m_life);
    if (m_alive && !m_full) {
      const unsigned dice = static_cast<unsigned>(random() % 64);
      if (dice < 40) {
        const std::shared_lock<std::shared_mutex> inserting(m_inserting);
        Work(thread, true, random);
      } else if (dice < 60) {
        Work(thread, false, random);
      } else if (dice == 60) {
        WalkBesideInserts();
      } else if (const std::unique_lock<std::shared_mutex> alone(m_inserting, std::try_to_lock); alone.owns_lock()) {
        ExpectEqual(KavoSetRehashMode(m_id, AnyMode(random)), KAVO_SUCCESS, "status of the rehash mode");
        CheckSize();
      }
      return;
    }
  }
  if (const std::unique_lock<std::shared_mutex> life(m_life, std::try_to_lock); life.owns_lock() && m_alive && m_full) {
    End();
  } else if (life.owns_lock() && !m_alive) {
    Begin(random);
  }
}

void SoakTable::Begin(Random& random) {
  constexpr std::array<unsigned, 6> SIZES{1, 8, 100, 1000, 20'000, 200'000};
  constexpr std::array<unsigned, 4> LENGTHS{16, 20, 64, 257};
  constexpr std::array<KeyFamily, 6> FAMILIES{KeyFamily::DENSE,      KeyFamily::RANDOM_62, KeyFamily::RANDOM_62,
                                              KeyFamily::TIMES_1024, KeyFamily::TIMES_16,  KeyFamily::EQUAL_LOW_32};
  m_id = static_cast<unsigned>(random() % 2 == 0 ? m_place * 30 + random() % 30
                                                 : 100'000 * (m_place + 1) + random() % 100'000);
  const unsigned type = random() % 3 == 0 ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC;
  const unsigned size = SIZES[random() % SIZES.size()];
  m_shape = ModelTable(type, size, LENGTHS[random() % LENGTHS.size()]);
  m_shape.threshold = static_cast<unsigned>(1 + random() % 12);
  m_family = FAMILIES[random() % FAMILIES.size()];
  m_firstIndex = static_cast<unsigned>(random() % (1U << 20));
  // As many small tables as large ones. A search among keys of few buckets is linear in their number.
  const std::size_t crowd = m_family == KeyFamily::EQUAL_LOW_32 ? 64 : m_family == KeyFamily::TIMES_1024 ? 8 : 1;
  const std::size_t most = m_keys / 2 / crowd >> random() % 9;
  m_sharedGoal = std::max<std::size_t>(most, 1);
  m_ownedGoal = most / m_threads + BATCH;
  for (Shared& shared : m_shared) {
    shared.address = nullptr;
    shared.offersBegun = shared.offers = shared.creators = shared.increments = 0;
  }
  m_sharedBegun = 0;
  ExpectEqual(KavoInitHashTable(m_id, size, m_shape.valueLen, type), KAVO_SUCCESS, "status of a new table");
  ExpectEqual(KavoInitHashTable(m_id, 8, 8, KAVO_TABLE_TYPE_BASIC), KAVO_EXISTS, "status of the table again");
  ExpectEqual(KavoSetRehashMode(m_id, AnyMode(random)), KAVO_SUCCESS, "status of the rehash mode");
  ExpectEqual(KavoSetFilterFreq(m_id, Frequency()), m_shape.IsFilter() ? KAVO_SUCCESS : KAVO_INVALID, "status");
  for (unsigned thread = 0; thread < m_threads; ++thread) {
    m_runners[thread] = std::make_unique<CallRunner>(m_id, m_shape, thread, m_threads + 1);
  }
  m_full = false;
  m_alive = true;
}

void SoakTable::Work(unsigned thread, bool inserts, Random& random) {
  for (unsigned n = 0; n < 64; ++n) {
    CallOnOwned(thread, inserts && OwnedBy(thread).size() + BATCH < m_ownedGoal, random);
    if (inserts) {
      OfferShared(random);
    } else {
      LookUpShared(random);
    }
  }
  m_totals.calls += 128;
}

void SoakTable::CallOnOwned(unsigned thread, bool inserts, Random& random) {
  const unsigned held = static_cast<unsigned>(OwnedBy(thread).size());
  Call call;
  do {
    std::array<unsigned char, CALL_BYTES> bytes;
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<unsigned char>(random()); });
    call = DecodeCall({{m_family, m_family}, 1, BATCH}, bytes.data());
  } while (!IsOnKeys(call.function) || MayInsert(call.function) != inserts);
  // New keys beside some that are there, or any, some of them absent.
  call.index = m_firstIndex + static_cast<unsigned>(inserts ? held - std::min<std::size_t>(held, random() % 8)
                                                            : random() % (held + 8));
  m_runners[thread]->Run(call);
}

// A new key, or one that others are at as well; or many of those, some of them several times.
void SoakTable::OfferShared(Random& random) {
  struct Offer {
    std::size_t n;
    bool known;  // with a value, before the call
    std::uint32_t offers;
  };
  const std::size_t begun = SharedBegun();
  const unsigned occurrences = static_cast<unsigned>(1 + random() % 3);
  std::vector<Offer> offers(begun != 0 && random() % 32 == 0 ? 1 + random() % BATCH : 1);
  std::vector<long> keys;
  for (Offer& offer : offers) {
    const bool isNew = begun == 0 || (offers.size() == 1 && random() % 4 == 0);
    offer.n = isNew ? m_sharedBegun++ : begun - 1 - random() % std::min(begun, BATCH);
    if (offer.n >= m_sharedGoal) {
      m_full = m_full || random() % 64 == 0;
      return;
    }
    offer.known = m_shared[offer.n].address != nullptr;
    offer.offers = m_shared[offer.n].offers;
    m_shared[offer.n].offersBegun += occurrences;
    keys.push_back(SharedKey(offer.n));
  }
  std::vector<unsigned char*> addresses(keys.size());
  std::vector<unsigned> isFind(keys.size(), 9);
  unsigned length = 0;
  unsigned long long done = 1;
  const int ret = keys.size() == 1 ? KavoLookupOrInsert(m_id, keys[0], &addresses[0], &length, &isFind[0], occurrences)
                                   : KavoBatchLookupOrInsert(m_id, keys.data(), keys.size(), addresses.data(),
                                                             isFind.data(), occurrences, &done);
  ExpectEqual(ret, KAVO_SUCCESS, "status of an offer");
  ExpectEqual(done, keys.size(), "done");
  for (std::size_t i = 0; i < keys.size(); ++i) {
    Shared& shared = m_shared[offers[i].n];
    Expect(isFind[i] <= 1 && (addresses[i] != nullptr || (m_shape.IsFilter() && !offers[i].known)), "bad answer for ",
           keys[i]);
    Expect(!m_shape.IsFilter() || addresses[i] == nullptr || shared.offersBegun >= Frequency(), keys[i],
           " is admitted early");
    Expect(addresses[i] != nullptr || offers[i].offers + occurrences < Frequency(), keys[i], " is not admitted");
    shared.creators += isFind[i] == 0;
    SeeShared(offers[i].n, addresses[i]);
    shared.offers += occurrences;
  }
  if (m_shape.IsFilter() && random() % 16 == 0) {
    ExpectEqual(KavoSetFilterFreq(m_id, Frequency()), KAVO_SUCCESS, "status of the frequency");
  }
}

void SoakTable::LookUpShared(Random& random) {
  const std::size_t begun = SharedBegun();
  if (begun == 0) {
    return;
  }
  Shared& shared = m_shared[random() % begun];
  const auto n = static_cast<std::size_t>(&shared - m_shared.data());
  const bool forUpdate = random() % 8 == 0;
  const bool known = shared.address != nullptr;
  const bool offered = shared.offers != 0;
  unsigned char* address = nullptr;
  unsigned length = 0;
  const int ret = (forUpdate ? KavoLookupForUpdate : KavoLookup)(m_id, SharedKey(n), &address, &length);
  Expect(ret == KAVO_SUCCESS ? address != nullptr || (m_shape.IsFilter() && !known)
                             : ret == KAVO_INVALID && !known && !offered,
         "status ", ret, " for key ", SharedKey(n), ", which was offered");
  SeeShared(n, address);
  if (forUpdate && address != nullptr) {
    SharedWord(address, 1).fetch_add(1, std::memory_order_relaxed);
    ++shared.increments;
  }
}

// One address a key, and a value that nobody else has.
void SoakTable::SeeShared(std::size_t n, unsigned char* address) {
  if (address == nullptr) {
    return;
  }
  unsigned char* expected = nullptr;
  Expect(m_shared[n].address.compare_exchange_strong(expected, address) || expected == address,
         "a second address of key ", SharedKey(n));
  std::uint64_t mark = 0;
  Expect(SharedWord(address, 0).compare_exchange_strong(mark, Proof(SharedKey(n))) || mark == Proof(SharedKey(n)),
         "another key's value at key ", SharedKey(n));
}

// While no new key is inserted. Lookups and updates go on.
void SoakTable::CheckSize() {
  std::size_t total = SharedBegun();
  for (unsigned thread = 0; thread < m_threads; ++thread) {
    total += OwnedBy(thread).size();
  }
  unsigned long long size = 0;
  unsigned length = 0;
  ExpectEqual(KavoGetHtSizeAndVl(m_id, &size, &length, false), KAVO_SUCCESS, "status of the size");
  ExpectEqual(size, total, "size");
}

// It may give some keys twice, but none without a value, and ends or is given up.
void SoakTable::WalkBesideInserts() {
  std::array<KavoHtBatchElement, 200> elements;
  KavoHtBatchInfo batch{elements.data(), elements.size(), KAVO_EXPORT_ALL, 9};
  void* cursor = nullptr;
  unsigned batches = 0;
  do {
    unsigned num = 0;
    ExpectEqual(KavoBatchGetNext(m_id, &batch, &num, &cursor), KAVO_SUCCESS, "status of an export");
    for (unsigned i = 0; i < num; ++i) {
      Expect(elements[i].value != nullptr || m_shape.IsFilter(), "key ", elements[i].key, " without a value");
    }
  } while (cursor != nullptr && ++batches < 64);
}

// Nothing else runs on the table: one model has all that the threads know, and is compared with the whole table,
// exports in every mode included.
void SoakTable::End() {
  if (!std::exchange(m_alive, false)) {
    return;
  }
  ModelTable whole = m_shape;
  for (unsigned thread = 0; thread < m_threads; ++thread) {
    whole.entries.merge(OwnedBy(thread));
    m_runners[thread].reset();
  }
  for (std::size_t n = 0; n < SharedBegun(); ++n) {
    const Shared& shared = m_shared[n];
    const long key = SharedKey(n);
    Expect(shared.creators == 1 || (m_shape.IsFilter() && shared.creators == 0), shared.creators, " created ", key);
    ModelEntry& entry = whole.entries[key];
    entry.admitted = !m_shape.IsFilter() || shared.offers >= Frequency();
    entry.count = shared.offers;
    entry.address = shared.address;
    const std::uint64_t words[]{entry.admitted ? Proof(key) : 0, shared.increments};
    entry.bytes.assign(m_shape.valueLen, 0);
    std::memcpy(entry.bytes.data(), words, sizeof(words));
  }
  for (auto& [key, entry] : whole.entries) {
    unsigned char* unknown = nullptr;
    if (entry.address != nullptr) {
      whole.CheckAddress(key, unknown, entry.address);
    }
  }
  KavoTableStats stats{};
  stats.size = sizeof(stats);
  ExpectEqual(KavoGetTableStats(m_id, &stats), KAVO_SUCCESS, "status of the statistics");
  Expect(stats.generations >= 1 && stats.valueBytes >= whole.addresses.size() * m_shape.valueLen, "value bytes are ",
         stats.valueBytes);
  m_totals.growths += stats.growths;
  CallRunner(m_id, std::move(whole), 0, 1).Finish();
  unsigned char* address = nullptr;
  unsigned length = 0;
  ExpectEqual(KavoLookup(m_id, 0, &address, &length), KAVO_INVALID, "status after the end");
  ++m_totals.tables;
}

}  // namespace KavoTest
