// The calls on many keys at once.
#include <algorithm>
#include <cstring>

#include "stress/soak_table.h"

namespace KavoTest {
namespace {

constexpr std::size_t MOST = 80;  // keys of a batch

}  // namespace

// Some keys that are there already, then new ones.
void SoakTable::InsertOwnedBatch(unsigned thread, Random& random) {
  Owned& owned = m_owned[thread];
  const std::size_t count = owned.count;
  const std::size_t first = count - std::min<std::size_t>(count, random() % 8);
  const std::size_t end = std::min(count + random() % MOST, m_shape.ownedGoal);
  std::vector<long> keys;
  std::vector<unsigned char> rows;
  for (std::size_t n = first; n < end; ++n) {
    keys.push_back(OwnedKey(thread, n));
    FillValue(owned.value, keys.back(), ++owned.versions[n]);
    rows.insert(rows.end(), owned.value.begin(), owned.value.end());
  }
  if (keys.empty()) {
    return;
  }
  unsigned long long done = 0;
  unsigned long long found = 0;
  std::vector<unsigned char*> addresses(keys.size());
  int ret = KavoBatchInsertOrUpdate(m_shape.id, keys.data(), keys.size(), rows.data(), m_shape.valueLen, 1, &done);
  Expect(ret == KAVO_SUCCESS && done == keys.size(), "insert or update of a batch", keys[0]);
  ret = KavoBatchLookup(m_shape.id, keys.data(), keys.size(), addresses.data(), &found);
  Expect(ret == KAVO_SUCCESS && found == keys.size(), "found after a batch's insert", keys[0]);
  if (found != keys.size()) {
    return;  // a mismatch, which ends the run
  }
  for (std::size_t n = first; n < end; ++n) {
    Expect(n >= count || addresses[n - first] == owned.addresses[n], "a second address of a key", keys[n - first]);
    if (n >= count) {
      owned.addresses[n] = addresses[n - first];
    }
  }
  if (end > count) {
    owned.count.store(end, std::memory_order_release);  // as in InsertOwned
  }
}

// Shared keys near the newest ones, some of them several times.
void SoakTable::OfferBatch(Random& random) {
  const std::size_t begun = std::min(m_sharedBegun.load(), m_shape.sharedGoal);
  if (begun == 0) {
    return;
  }
  const unsigned occurrences = static_cast<unsigned>(1 + random() % 3);
  std::vector<std::size_t> indexes(1 + random() % MOST);
  std::vector<long> keys;
  std::vector<Offered> before;
  for (std::size_t& n : indexes) {
    n = begun - 1 - random() % std::min(begun, MOST);
    keys.push_back(SharedKey(n));
    before.push_back(BeginOffer(n, occurrences));
  }
  std::vector<unsigned char*> addresses(keys.size());
  std::vector<unsigned> isFind(keys.size(), 9);
  unsigned long long done = 0;
  const int ret = KavoBatchLookupOrInsert(m_shape.id, keys.data(), keys.size(), addresses.data(), isFind.data(),
                                          occurrences, &done);
  Expect(done == keys.size(), "look up or insert of a batch", keys[0]);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EndOffer(indexes[i], occurrences, before[i], ret, addresses[i], isFind[i]);
  }
}

// A thread's own keys, among them one that is not there.
void SoakTable::LookUpBatch(unsigned thread, Random& random) {
  Owned& owned = m_owned[thread];
  const std::size_t count = owned.count;
  std::vector<std::size_t> indexes(random() % MOST);
  std::vector<long> keys;
  for (std::size_t& n : indexes) {
    n = random() % (count + 1);
    keys.push_back(OwnedKey(thread, n));
  }
  unsigned long long found = 0;
  std::vector<unsigned char*> addresses(keys.size() + 1);
  std::vector<unsigned char> rows((keys.size() + 1) * m_shape.valueLen);
  const std::vector<unsigned char> none(m_shape.valueLen, 0xA5);
  keys.push_back(OwnedKey(thread, count));
  indexes.push_back(count);
  int ret = KavoBatchLookup(m_shape.id, keys.data(), keys.size(), addresses.data(), &found);
  const auto present = std::count_if(indexes.begin(), indexes.end(), [&](std::size_t n) { return n < count; });
  Expect(ret == KAVO_SUCCESS && found == static_cast<unsigned long long>(present), "look up of a batch", keys[0]);
  ret = KavoBatchGather(m_shape.id, keys.data(), keys.size(), rows.data(), m_shape.valueLen, none.data());
  Expect(ret == KAVO_SUCCESS, "gather", keys[0]);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const std::size_t n = indexes[i];
    if (n < count) {
      FillValue(owned.seen, keys[i], owned.versions[n]);
    }
    Expect(addresses[i] == (n < count ? owned.addresses[n] : nullptr), "address in a batch", keys[i]);
    Expect(std::memcmp(&rows[i * m_shape.valueLen], n < count ? owned.seen.data() : none.data(), m_shape.valueLen) == 0,
           "row of a batch", keys[i]);
  }
}

}  // namespace KavoTest
