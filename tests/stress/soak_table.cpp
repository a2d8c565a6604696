#include "stress/soak_table.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <unordered_set>

namespace KavoTest {
namespace {

constexpr unsigned ROUNDS = 64;  // of a visit
constexpr std::size_t BATCH = 80;

std::atomic_ref<std::uint64_t> SharedWord(unsigned char* address, std::size_t at) {
  return std::atomic_ref<std::uint64_t>(reinterpret_cast<std::uint64_t*>(address)[at]);
}

std::uint64_t Proof(long key) {
  return static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15ULL | 1;
}

template <class T, std::size_t N>
T AnyOf(const T (&choices)[N], Random& random) {
  return choices[random() % N];
}

}  // namespace

void SoakTotals::Expect(bool right, const std::string& what) {
  if (!right && ++mismatches <= 20) {
    std::fprintf(stderr, "MISMATCH %s\n", what.c_str());
  }
}

SoakTable::SoakTable(unsigned place, unsigned threads, std::size_t keys, SoakTotals& totals)
    : m_place(place), m_threads(threads), m_keys(keys), m_totals(totals), m_runners(threads), m_shared(keys / 2) {}

void SoakTable::Expect(bool right, const char* what, long key) const {
  if (!right) {
    m_totals.Expect(false, std::string(what) + ": table " + std::to_string(m_shape.id) + ", key " +
                               std::to_string(key) + (IsFilter() ? ", filter" : ", basic") + ", size " +
                               std::to_string(m_shape.size));
  }
}

// Different for every index; some in one bucket.
long SoakTable::SharedKey(std::size_t n) const {
  const KeyFamily family = n % 256 == 0 ? KeyFamily::EQUAL_LOW_32 : m_shape.family;
  return KeyOfShare(KeyOf(family, m_shape.firstIndex + static_cast<unsigned>(n)), m_threads, Shares());
}

ModelTable SoakTable::EmptyModel() const {
  ModelTable table(m_shape.type, m_shape.size, m_shape.valueLen);
  table.threshold = m_shape.frequency - 1;
  return table;
}

void SoakTable::Visit(unsigned thread, Random& random) {
  {
    const std::shared_lock<std::shared_mutex> life(m_life);
    if (m_alive && !m_full) {
      const unsigned dice = static_cast<unsigned>(random() % 64);
      if (dice < 40) {
        const std::shared_lock<std::shared_mutex> inserting(m_inserting);
        for (unsigned n = 0; n < ROUNDS; ++n) {
          CallOnOwned(thread, OwnedBy(thread).size() + BATCH < m_shape.ownedGoal, random);
          OfferShared(random);
        }
      } else if (dice < 60) {
        for (unsigned n = 0; n < ROUNDS; ++n) {
          CallOnOwned(thread, false, random);
          LookUpShared(random);
        }
      } else if (dice == 60) {
        Export(random, true);
      } else if (const std::unique_lock<std::shared_mutex> alone(m_inserting, std::try_to_lock); alone.owns_lock()) {
        if (dice == 61) {
          const unsigned mode = random() % 2 == 0 ? KAVO_REHASH_GRADUAL : KAVO_REHASH_WHOLE_TABLE;
          Expect(KavoSetRehashMode(m_shape.id, mode) == KAVO_SUCCESS, "rehash mode", 0);
          return;
        }
        // Lookups and updates go on.
        std::size_t total = SharedBegun();
        for (unsigned other = 0; other < m_threads; ++other) {
          total += OwnedBy(other).size();
        }
        unsigned long long size = 0;
        unsigned length = 0;
        const int ret = KavoGetHtSizeAndVl(m_shape.id, &size, &length, false);
        Expect(ret == KAVO_SUCCESS && size == total && length == m_shape.valueLen, "size", static_cast<long>(size));
        Expect(Export(random, false) == total, "number of exported keys", static_cast<long>(total));
      }
      return;
    }
  }
  const std::unique_lock<std::shared_mutex> life(m_life, std::try_to_lock);
  if (life.owns_lock()) {
    if (m_alive && m_full) {
      CheckAll();
    }
    if (!m_alive) {
      Begin(random);
    }
  }
}

void SoakTable::End() {
  const std::unique_lock<std::shared_mutex> life(m_life);
  if (m_alive) {
    CheckAll();
  }
}

void SoakTable::Begin(Random& random) {
  constexpr unsigned SIZES[]{1, 8, 100, 1000, 20'000, 200'000};
  constexpr unsigned LENGTHS[]{16, 20, 64, 257};
  constexpr KeyFamily FAMILIES[]{KeyFamily::DENSE,      KeyFamily::RANDOM_62, KeyFamily::RANDOM_62,
                                 KeyFamily::TIMES_1024, KeyFamily::TIMES_16,  KeyFamily::EQUAL_LOW_32};
  const unsigned id = static_cast<unsigned>(random() % 2 == 0 ? m_place * 30 + random() % 30
                                                              : 100'000 * (m_place + 1) + random() % 100'000);
  m_shape.id = id;
  m_shape.type = random() % 3 == 0 ? KAVO_TABLE_TYPE_FILTER : KAVO_TABLE_TYPE_BASIC;
  m_shape.size = AnyOf(SIZES, random);
  m_shape.valueLen = AnyOf(LENGTHS, random);
  m_shape.frequency = static_cast<unsigned>(2 + random() % 12);
  m_shape.family = AnyOf(FAMILIES, random);
  m_shape.firstIndex = static_cast<unsigned>(random() % (1U << 20));
  // As many small tables as large ones. A search among keys of few buckets is linear in their number.
  const std::size_t part = std::size_t{1} << random() % 9;
  const std::size_t crowd = m_shape.family == KeyFamily::EQUAL_LOW_32 ? 64
                            : m_shape.family == KeyFamily::TIMES_1024 ? 8
                                                                      : 1;
  m_shape.sharedGoal = std::max<std::size_t>(m_shared.size() / part / crowd, 1);
  m_shape.ownedGoal = m_keys / 2 / m_threads / part / crowd + BATCH;
  for (Shared& shared : m_shared) {
    shared.address = nullptr;
    shared.offersBegun = shared.offers = shared.creators = shared.increments = 0;
  }
  m_sharedBegun = 0;
  m_prepared = 0;
  Expect(KavoInitHashTable(id, m_shape.size, m_shape.valueLen, m_shape.type) == KAVO_SUCCESS, "create", 0);
  Expect(KavoInitHashTable(id, 8, 8, KAVO_TABLE_TYPE_BASIC) == KAVO_EXISTS, "create again", 0);
  Expect(KavoSetRehashMode(id, random() % 2 == 0 ? KAVO_REHASH_GRADUAL : KAVO_REHASH_WHOLE_TABLE) == KAVO_SUCCESS,
         "rehash mode", 0);
  Expect(KavoSetFilterFreq(id, m_shape.frequency) == (IsFilter() ? KAVO_SUCCESS : KAVO_INVALID), "frequency", 0);
  if (random() % 4 == 0) {
    Prepare(random() % 1000);
  }
  for (unsigned thread = 0; thread < m_threads; ++thread) {
    m_runners[thread] = std::make_unique<CallRunner>(id, EmptyModel(), thread, Shares());
  }
  m_full = false;
  m_alive = true;
}

// The first shared keys adopt values that were written beforehand. None is left for others.
void SoakTable::Prepare(std::size_t most) {
  unsigned long long count = 0;
  Expect(KavoPrepareMemForValues(m_shape.id, &count) == KAVO_SUCCESS && count == std::max(m_shape.size, 8U), "prepare",
         0);
  m_prepared = std::min<std::size_t>({most, count, m_shape.sharedGoal});
  unsigned char* address = nullptr;
  unsigned length = 0;
  unsigned isFind = 9;
  for (std::size_t n = 0; n < m_prepared; ++n) {
    const int ret = KavoGetMemForValue(m_shape.id, n, &address, &length);
    Expect(ret == KAVO_SUCCESS && length == m_shape.valueLen, "value memory", SharedKey(n));
    if (ret == KAVO_SUCCESS) {
      SeeShared(n, address);
    }
  }
  for (std::size_t n = 0; n < m_prepared; ++n) {
    const int ret = KavoLookupOrInsert(m_shape.id, SharedKey(n), &address, &length, &isFind, 0);
    Expect(ret == KAVO_SUCCESS && isFind == 1 && address == m_shared[n].address, "adopted value", SharedKey(n));
  }
  m_sharedBegun = m_prepared;
}

void SoakTable::CallOnOwned(unsigned thread, bool inserts, Random& random) {
  using enum Function;
  constexpr Function INSERTING[]{INSERT, INSERT_OR_UPDATE, LOOKUP_OR_INSERT, BATCH_LOOKUP_OR_INSERT,
                                 BATCH_INSERT_OR_UPDATE};
  constexpr Function OTHERS[]{LOOKUP, LOOKUP, LOOKUP_FOR_UPDATE, UPDATE, BATCH_LOOKUP, BATCH_GATHER};
  const std::size_t held = OwnedBy(thread).size();
  Call call;
  call.function = inserts ? AnyOf(INSERTING, random) : AnyOf(OTHERS, random);
  call.family = random() % 256 == 0 ? KeyFamily::EQUAL_LOW_32 : m_shape.family;
  call.count = static_cast<unsigned>(1 + random() % (IsBatch(call.function) ? BATCH : 4));
  // New keys beside some that are there, or any, some of them absent.
  call.index = m_shape.firstIndex + static_cast<unsigned>(inserts ? held - std::min<std::size_t>(held, random() % 8)
                                                                  : random() % (held + 8));
  call.source = random() % 16 == 0 ? static_cast<Source>(random() % SOURCE_COUNT) : Source::BUFFER;
  call.tooLong = random() % 64 == 0 ? 1 : 0;
  call.number = static_cast<unsigned>(random() % 4);
  call.kind = static_cast<unsigned>(random() % 8);
  call.bytes = static_cast<unsigned char>(random());
  call.writes = random() % 2 == 0;
  try {
    m_runners[thread]->Run(call);
  } catch (const Mismatch& mismatch) {
    Expect(false, mismatch.what(), 0);
  }
  m_totals.calls += IsBatch(call.function) ? 1 : call.count;
}

// A new key, or one that others are at as well; or many of those, some of them several times.
void SoakTable::OfferShared(Random& random) {
  const std::size_t begun = SharedBegun();
  const unsigned occurrences = static_cast<unsigned>(1 + random() % 3);
  std::vector<Offer> offers(begun != 0 && random() % 32 == 0 ? 1 + random() % BATCH : 1);
  std::vector<long> keys;
  for (Offer& offer : offers) {
    const bool isNew = begun == 0 || (offers.size() == 1 && random() % 4 == 0);
    offer.n = isNew ? m_sharedBegun++ : begun - 1 - random() % std::min(begun, BATCH);
    if (offer.n >= m_shape.sharedGoal) {
      m_full = m_full || random() % 64 == 0;
      return;
    }
    Shared& shared = m_shared[offer.n];
    offer.known = shared.address != nullptr;
    offer.offers = shared.offers;
    shared.offersBegun += occurrences;
    keys.push_back(SharedKey(offer.n));
  }
  std::vector<unsigned char*> addresses(keys.size());
  std::vector<unsigned> isFind(keys.size(), 9);
  unsigned length = 0;
  unsigned long long done = 1;
  const int ret = keys.size() == 1
                      ? KavoLookupOrInsert(m_shape.id, keys[0], &addresses[0], &length, &isFind[0], occurrences)
                      : KavoBatchLookupOrInsert(m_shape.id, keys.data(), keys.size(), addresses.data(), isFind.data(),
                                                occurrences, &done);
  Expect(done == keys.size(), "look up or insert of a batch", keys[0]);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    CheckOffer(offers[i], occurrences, ret, addresses[i], isFind[i]);
  }
  if (IsFilter() && random() % 16 == 0) {
    Expect(KavoSetFilterFreq(m_shape.id, m_shape.frequency) == KAVO_SUCCESS, "frequency", 0);
  }
  ++m_totals.calls;
}

void SoakTable::CheckOffer(const Offer& offer, unsigned occurrences, int ret, unsigned char* address, unsigned isFind) {
  Shared& shared = m_shared[offer.n];
  Expect(ret == KAVO_SUCCESS && isFind <= 1 && (address != nullptr || (IsFilter() && !offer.known)),
         "look up or insert of a shared key", SharedKey(offer.n));
  if (IsFilter() && offer.n >= m_prepared) {
    Expect(
        address != nullptr ? shared.offersBegun >= m_shape.frequency : offer.offers + occurrences < m_shape.frequency,
        address != nullptr ? "admitted early" : "not admitted", SharedKey(offer.n));
  }
  shared.creators += isFind == 0;
  SeeShared(offer.n, address);
  shared.offers += occurrences;
}

void SoakTable::LookUpShared(Random& random) {
  const std::size_t begun = SharedBegun();
  if (begun == 0) {
    return;
  }
  const std::size_t n = random() % begun;
  const bool forUpdate = random() % 8 == 0;
  const bool known = m_shared[n].address != nullptr;
  const bool offered = m_shared[n].offers != 0;
  unsigned char* address = nullptr;
  unsigned length = 0;
  const int ret = (forUpdate ? KavoLookupForUpdate : KavoLookup)(m_shape.id, SharedKey(n), &address, &length);
  Expect(ret == KAVO_SUCCESS ? address != nullptr || (IsFilter() && !known) : ret == KAVO_INVALID && !known && !offered,
         "a shared key that was offered", SharedKey(n));
  SeeShared(n, address);
  if (forUpdate && address != nullptr) {
    SharedWord(address, 1).fetch_add(1, std::memory_order_relaxed);
    ++m_shared[n].increments;
  }
  ++m_totals.calls;
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
  Expect(SharedWord(address, 0).compare_exchange_strong(mark, Proof(SharedKey(n))) || mark == Proof(SharedKey(n)),
         "another key's value", SharedKey(n));
}

std::size_t SoakTable::Export(Random& random, bool mayBeGivenUp) {
  std::vector<KavoHtBatchElement> elements(std::size_t{1} << random() % 12);
  KavoHtBatchInfo batch{elements.data(), static_cast<unsigned>(elements.size()), KAVO_EXPORT_ALL, 9};
  std::unordered_set<long> keys;
  long last = -1;
  void* cursor = nullptr;
  do {
    unsigned num = 0;
    if (KavoBatchGetNext(m_shape.id, &batch, &num, &cursor) != KAVO_SUCCESS || num > elements.size() ||
        batch.tableType != m_shape.type) {
      Expect(false, "export", 0);
      break;
    }
    for (unsigned i = 0; i < num; ++i) {
      const KavoHtBatchElement& element = elements[i];
      const bool comesAgain = i == 0 && element.key == last;  // a full batch's last entry
      Expect(keys.insert(element.key).second || comesAgain || mayBeGivenUp, "exported twice", element.key);
      Expect(element.value != nullptr || IsFilter(), "exported without a value", element.key);
      last = element.key;
    }
  } while (cursor != nullptr && !(mayBeGivenUp && random() % 64 == 0));
  ++m_totals.exports;
  return keys.size();
}

// Nothing else runs on the table, and this is its end: one model has all that the threads know, and is compared with
// the whole table, exports in every mode included.
void SoakTable::CheckAll() {
  try {
    ModelTable whole = EmptyModel();
    for (unsigned thread = 0; thread < m_threads; ++thread) {
      whole.entries.merge(OwnedBy(thread));
      m_runners[thread].reset();
    }
    CheckShared(whole);
    std::size_t admitted = 0;
    for (auto& [key, entry] : whole.entries) {
      unsigned char* unknown = nullptr;
      if (entry.address != nullptr) {
        whole.CheckAddress(key, unknown, entry.address);
      }
      admitted += entry.admitted ? 1 : 0;
    }
    KavoTableStats stats{};
    stats.size = sizeof(stats);
    Expect(KavoGetTableStats(m_shape.id, &stats) == KAVO_SUCCESS && stats.generations >= 1 &&
               stats.valueBytes >= admitted * m_shape.valueLen,
           "statistics", static_cast<long>(stats.valueBytes));
    m_totals.growths += stats.growths;
    CallRunner(m_shape.id, std::move(whole), 0, 1).Finish();
  } catch (const Mismatch& mismatch) {
    Expect(false, mismatch.what(), 0);
  }
  unsigned char* address = nullptr;
  unsigned length = 0;
  Expect(KavoLookup(m_shape.id, 0, &address, &length) == KAVO_INVALID, "use after the end", 0);
  m_alive = false;
  ++m_totals.tables;
}

void SoakTable::CheckShared(ModelTable& whole) {
  for (std::size_t n = 0; n < SharedBegun(); ++n) {
    const Shared& shared = m_shared[n];
    const long key = SharedKey(n);
    const std::uint32_t creators = shared.creators;
    Expect(n < m_prepared ? creators == 0 : IsFilter() ? creators <= 1 : creators == 1, "number of creators", key);
    ModelEntry& entry = whole.entries[key];
    entry.admitted = n < m_prepared || !IsFilter() || shared.offers >= m_shape.frequency;
    entry.count = shared.offers;
    entry.address = shared.address;
    const std::uint64_t words[]{entry.admitted ? Proof(key) : 0, shared.increments};
    entry.bytes.assign(m_shape.valueLen, 0);
    std::memcpy(entry.bytes.data(), words, sizeof(words));
  }
}

}  // namespace KavoTest
