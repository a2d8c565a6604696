// The runner's calls on many keys. To the model a batch is a sequence of single calls.
#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "model/call_runner.h"

namespace KavoTest {

// In some batches keys repeat, in some the last one is negative, some are empty.
std::vector<long> CallRunner::KeysFor(const Call& call) const {
  constexpr unsigned EMPTY = 7;
  constexpr unsigned LAST_IS_NEGATIVE = 3;
  std::vector<long> keys(call.kind == EMPTY ? 0 : call.count);
  keys.reserve(1);  // an array that is empty is not null
  const unsigned period = call.kind % 2 == 1 ? call.count / 2 + 1 : call.count;
  for (unsigned i = 0; i < keys.size(); ++i) {
    keys[i] = KeyFor(call, i % period);
  }
  if (call.kind == LAST_IS_NEGATIVE) {
    keys.back() |= LONG_MIN;
  }
  return keys;
}

bool CallRunner::IsRefused(unsigned id, const std::vector<long>& keys) {
  return m_model.Table(id) == nullptr || std::any_of(keys.begin(), keys.end(), [](long key) { return key < 0; });
}

// `make` makes the call. No key of it may have a line of its own.
template <class Make>
void CallRunner::CompareBatch(const Call& call, bool isRefused, Make make) {
  const unsigned long mapMisses = CountedLines().mapMisses;
  Compare(call.function, isRefused ? KAVO_INVALID : KAVO_SUCCESS, make);
  ExpectEqual(CountedLines().mapMisses, mapMisses, "map misses logged");
}

void CallRunner::BatchLookup(const Call& call, unsigned id) {
  const std::vector<long> keys = KeysFor(call);
  const bool refused = IsRefused(id, keys);
  std::vector<unsigned char*> values(keys.size() + 1, &g_noValue);  // one more, not to be written
  unsigned long long found = NO_COUNT;
  CompareBatch(call, refused, [&] { return KavoBatchLookup(id, keys.data(), keys.size(), values.data(), &found); });
  unsigned long long wanted = 0;
  for (std::size_t i = 0; i < keys.size() && !refused; ++i) {
    ModelTable& table = *m_model.Table(id);
    ModelEntry* const entry = table.Find(keys[i]);
    if (entry == nullptr) {
      Expect(values[i] == nullptr, "absent key ", keys[i], " has an address");
    } else {
      CheckValue(table, keys[i], *entry, values[i]);
      wanted += entry->admitted ? 1 : 0;
    }
  }
  ExpectEqual(found, refused ? NO_COUNT : wanted, "found");
  Expect(values[refused ? 0 : keys.size()] == &g_noValue, "an address was written that should not be");
}

void CallRunner::BatchGather(const Call& call, unsigned id) {
  const std::vector<long> keys = KeysFor(call);
  ModelTable* const table = m_model.Table(id);
  const unsigned right = table == nullptr ? 8 : table->valueLen;
  const unsigned length = right + call.tooLong;
  const bool refused = IsRefused(id, keys) || length != right;
  const Bytes absent = call.writes ? ValueFor(call.bytes, 0, right) : Bytes(right);
  Bytes rows(keys.size() * right, 0xA5);
  Bytes wanted = rows;
  for (std::size_t i = 0; i < keys.size() && !refused; ++i) {
    const ModelEntry* const entry = table->Find(keys[i]);
    const Bytes& row = entry == nullptr || !entry->admitted ? absent : entry->bytes;
    std::copy(row.begin(), row.end(), &wanted[i * right]);
  }
  rows.reserve(1);  // as in KeysFor
  CompareBatch(call, refused, [&] {
    return KavoBatchGather(id, keys.data(), keys.size(), rows.data(), length, call.writes ? absent.data() : nullptr);
  });
  Expect(rows == wanted, "wrong rows");
}

void CallRunner::BatchLookupOrInsert(const Call& call, unsigned id) {
  const std::vector<long> keys = KeysFor(call);
  const bool refused = IsRefused(id, keys);
  std::vector<unsigned char*> values(keys.size() + 1, &g_noValue);
  std::vector<unsigned> isFind(keys.size() + 1, NO_NUMBER);
  unsigned long long done = NO_COUNT;
  CompareBatch(call, refused, [&] {
    return KavoBatchLookupOrInsert(id, keys.data(), keys.size(), values.data(), isFind.data(), call.number, &done);
  });
  ExpectEqual(done, refused ? 0 : keys.size(), "done");
  for (std::size_t i = 0; i < keys.size() && !refused; ++i) {
    const auto answer = m_model.LookupOrInsert(id, keys[i], call.number);
    ExpectEqual(isFind[i], answer.isFind, "isFind");
    CheckValue(*m_model.Table(id), keys[i], *answer.entry, values[i]);
  }
  for (std::size_t i = 0; i < keys.size() && !refused && call.writes; ++i) {
    if (values[i] != nullptr) {
      ModelTable& table = *m_model.Table(id);
      Bytes& bytes = table.Find(keys[i])->bytes;
      bytes = ValueFor(call.bytes, keys[i], table.valueLen);
      std::copy(bytes.begin(), bytes.end(), values[i]);
    }
  }
  const std::size_t behind = refused ? 0 : keys.size();
  Expect(values[behind] == &g_noValue && isFind[behind] == NO_NUMBER, "outputs were written that should not be");
}

void CallRunner::BatchInsertOrUpdate(const Call& call, unsigned id) {
  const std::vector<long> keys = KeysFor(call);
  const ModelTable* const table = m_model.Table(id);
  const unsigned right = table == nullptr ? 8 : table->valueLen;
  const unsigned length = right + call.tooLong;
  const bool refused = IsRefused(id, keys) || length != right;
  Bytes rows;
  rows.reserve(1);  // as in KeysFor
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const Bytes row = ValueFor(static_cast<unsigned char>(call.bytes + i), keys[i], right);
    rows.insert(rows.end(), row.begin(), row.end());
    if (!refused) {
      static_cast<void>(m_model.InsertOrUpdate(id, keys[i], row.data(), right, call.number));
    }
  }
  unsigned long long done = NO_COUNT;
  CompareBatch(call, refused, [&] {
    return KavoBatchInsertOrUpdate(id, keys.data(), keys.size(), rows.data(), length, call.number, &done);
  });
  ExpectEqual(done, refused ? 0 : keys.size(), "done");
}

}  // namespace KavoTest
