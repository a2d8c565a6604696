// The checks of a table as a whole.
#include <algorithm>
#include <cstring>

#include "stress/soak_table.h"

namespace KavoTest {

std::size_t SoakTable::Total() const {
  std::size_t total = std::min(m_sharedBegun.load(), m_shape.sharedGoal);
  for (const Owned& owned : m_owned) {
    total += owned.count;
  }
  return total;
}

std::vector<long> SoakTable::Export(unsigned mode, Random& random, bool onlyLooking) {
  std::vector<KavoHtBatchElement> elements(std::size_t{1} << random() % 12);
  KavoHtBatchInfo batch{elements.data(), static_cast<unsigned>(elements.size()), mode, 9};
  std::vector<long> keys;
  void* iter = nullptr;
  do {
    unsigned num = 0;
    if (KavoBatchGetNext(m_shape.id, &batch, &num, &iter) != KAVO_SUCCESS || num > elements.size() ||
        batch.tableType != m_shape.type) {
      Expect(false, "export", 0);
      break;
    }
    for (unsigned i = 0; i < num; ++i) {
      const KavoHtBatchElement& element = elements[i];
      // A full batch's last entry comes again, unless it has been marked.
      const bool comesAgain = i == 0 && !keys.empty() && keys.back() == element.key &&
                              (mode != KAVO_EXPORT_UNMARKED_MARK || element.value == nullptr);
      if (!comesAgain) {
        keys.push_back(element.key);
      }
      Expect(element.value != nullptr || IsFilter(), "exported without a value", element.key);
    }
  } while (iter != nullptr && !(onlyLooking && random() % 64 == 0));
  ++m_totals.exports;
  if (!onlyLooking) {
    std::sort(keys.begin(), keys.end());
    Expect(std::adjacent_find(keys.begin(), keys.end()) == keys.end(), "exported twice", 0);
  }
  return keys;
}

// While no new key is inserted. Lookups and updates go on.
void SoakTable::CheckCount(Random& random) {
  const std::size_t total = Total();
  unsigned long long size = 0;
  unsigned length = 0;
  const int ret = KavoGetHtSizeAndVl(m_shape.id, &size, &length, false);
  Expect(ret == KAVO_SUCCESS && size == total && length == m_shape.valueLen, "size", static_cast<long>(size));
  const std::vector<long> keys = Export(KAVO_EXPORT_ALL, random);
  Expect(keys.size() == total, "number of exported keys", static_cast<long>(keys.size()));
}

// Nothing else runs on the table, and this is its end.
void SoakTable::CheckAll(Random& random) {
  std::vector<long> expected;
  std::vector<unsigned char> value;
  unsigned char* address = nullptr;
  unsigned length = 0;
  for (unsigned thread = 0; thread < m_owned.size(); ++thread) {
    for (std::size_t n = 0; n < m_owned[thread].count; ++n) {
      CheckOwned(thread, n);
      const long key = OwnedKey(thread, n);
      FillValue(value, key, m_owned[thread].versions[n]);
      Expect(std::memcmp(m_owned[thread].addresses[n], value.data(), value.size()) == 0, "value at the end", key);
      expected.push_back(key);
    }
  }
  std::uint64_t increments = 0;
  std::size_t counted = 0;
  for (std::size_t n = 0; n < std::min(m_sharedBegun.load(), m_shape.sharedGoal); ++n) {
    const Shared& shared = m_shared[n];
    const long key = SharedKey(n);
    address = nullptr;
    Expect(KavoLookup(m_shape.id, key, &address, &length) == KAVO_SUCCESS, "shared key at the end", key);
    Expect(address == shared.address, "address at the end", key);
    const bool admitted = n < m_prepared || !IsFilter() || shared.offers >= m_shape.frequency;
    Expect((address != nullptr) == admitted, "admitted or not at the end", key);
    const std::uint32_t creators = shared.creators;
    Expect(n < m_prepared ? creators == 0 : IsFilter() ? creators <= 1 : creators == 1, "number of creators", key);
    if (address != nullptr) {
      std::uint64_t word = 0;
      std::memcpy(&word, address + sizeof(word), sizeof(word));
      increments += word;
      SeeShared(n, address);
    } else {
      ++counted;
    }
    expected.push_back(key);
  }
  Expect(increments == m_increments, "increments of all values", static_cast<long>(increments));
  CheckCount(random);
  KavoTableStats stats{};
  stats.size = sizeof(stats);
  Expect(KavoGetTableStats(m_shape.id, &stats) == KAVO_SUCCESS && stats.generations >= 1 &&
             stats.valueBytes >= (expected.size() - counted) * m_shape.valueLen,
         "statistics", static_cast<long>(stats.valueBytes));
  m_totals.growths += stats.growths;
  std::sort(expected.begin(), expected.end());
  Expect(Export(KAVO_EXPORT_ALL, random) == expected, "set of exported keys", 0);
  CheckMarking(expected.size(), counted, random);
  m_alive = false;
  Expect(KavoUninitHashTable(m_shape.id) == KAVO_SUCCESS, "destroy", 0);
  Expect(KavoLookup(m_shape.id, 0, &address, &length) == KAVO_INVALID, "use after the end", 0);
  ++m_totals.tables;
}

// No export marked before this one; afterwards those that were changed are found, beside those that have no value.
void SoakTable::CheckMarking(std::size_t total, std::size_t counted, Random& random) {
  Expect(Export(KAVO_EXPORT_UNMARKED_MARK, random).size() == total, "first marking export", 0);
  Expect(Export(KAVO_EXPORT_UNMARKED, random).size() == counted, "nothing changed", 0);
  const std::size_t changed = std::min<std::size_t>(m_owned[0].count, 10);
  for (std::size_t n = 0; n < changed; ++n) {
    unsigned char* address = nullptr;
    unsigned length = 0;
    Expect(KavoLookupForUpdate(m_shape.id, OwnedKey(0, n), &address, &length) == KAVO_SUCCESS, "look up for update", 0);
  }
  Expect(Export(KAVO_EXPORT_UNMARKED, random).size() == counted + changed, "changed keys", 0);
}

}  // namespace KavoTest
