// The runner's calls on many keys, and its exports. To the model a batch is a sequence of single calls.
#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>
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

bool CallRunner::IsRefused(const Step& step, const std::vector<long>& keys) {
  return step.model == nullptr || std::any_of(keys.begin(), keys.end(), [](long key) { return key < 0; });
}

// `make` makes the call. No key of it may have a line of its own.
template <class Make>
void CallRunner::CompareBatch(const Step& step, bool isRefused, Make make) {
  const unsigned long mapMisses = CountedLines().mapMisses;
  Compare(step.function, isRefused ? KAVO_INVALID : KAVO_SUCCESS, make);
  ExpectEqual(CountedLines().mapMisses, mapMisses, "map misses logged");
}

void CallRunner::BatchLookup(const Step& step) {
  const std::vector<long> keys = KeysFor(step);
  const bool refused = IsRefused(step, keys);
  std::vector<unsigned char*> values(keys.size() + 1, &g_noValue);  // one more, not to be written
  unsigned long long found = NO_COUNT;
  CompareBatch(step, refused,
               [&] { return KavoBatchLookup(step.id, keys.data(), keys.size(), values.data(), &found); });
  unsigned long long wanted = 0;
  for (std::size_t i = 0; i < keys.size() && !refused; ++i) {
    ModelEntry* const entry = step.model->Find(keys[i]);
    if (entry == nullptr) {
      Expect(values[i] == nullptr, "absent key ", keys[i], " has an address");
    } else {
      CheckValue(*step.model, keys[i], *entry, values[i]);
      wanted += entry->admitted ? 1 : 0;
    }
  }
  ExpectEqual(found, refused ? NO_COUNT : wanted, "found");
  Expect(values[refused ? 0 : keys.size()] == &g_noValue, "an address was written that should not be");
}

void CallRunner::BatchGather(const Step& step) {
  const std::vector<long> keys = KeysFor(step);
  const unsigned right = step.RightLen();
  const bool refused = IsRefused(step, keys) || step.tooLong != 0;
  const Bytes absent = step.writes ? ValueFor(step.bytes, 0, right) : Bytes(right);
  Bytes rows(keys.size() * right, 0xA5);
  Bytes wanted = rows;
  for (std::size_t i = 0; i < keys.size() && !refused; ++i) {
    const ModelEntry* const entry = step.model->Find(keys[i]);
    const Bytes& row = entry == nullptr || !entry->admitted ? absent : entry->bytes;
    std::copy(row.begin(), row.end(), &wanted[i * right]);
  }
  rows.reserve(1);  // as in KeysFor
  CompareBatch(step, refused, [&] {
    return KavoBatchGather(step.id, keys.data(), keys.size(), rows.data(), right + step.tooLong,
                           step.writes ? absent.data() : nullptr);
  });
  Expect(rows == wanted, "wrong rows");
}

void CallRunner::BatchLookupOrInsert(const Step& step) {
  const std::vector<long> keys = KeysFor(step);
  const std::size_t served = IsRefused(step, keys) ? 0 : keys.size();
  std::vector<unsigned char*> values(keys.size() + 1, &g_noValue);
  std::vector<unsigned> isFind(keys.size() + 1, NO_NUMBER);
  unsigned long long done = NO_COUNT;
  CompareBatch(step, IsRefused(step, keys), [&] {
    return KavoBatchLookupOrInsert(step.id, keys.data(), keys.size(), values.data(), isFind.data(), step.number, &done);
  });
  ExpectEqual(done, served, "done");
  for (std::size_t i = 0; i < served; ++i) {
    const auto answer = m_model.LookupOrInsert(step.id, keys[i], step.number);
    ExpectEqual(isFind[i], answer.isFind, "isFind");
    CheckValue(*step.model, keys[i], *answer.entry, values[i]);
  }
  for (std::size_t i = 0; i < served && step.writes; ++i) {
    if (values[i] != nullptr) {
      Bytes& bytes = step.model->Find(keys[i])->bytes;
      bytes = ValueFor(step.bytes, keys[i], step.model->valueLen);
      std::copy(bytes.begin(), bytes.end(), values[i]);
    }
  }
  Expect(values[served] == &g_noValue && isFind[served] == NO_NUMBER, "outputs were written that should not be");
}

void CallRunner::BatchInsertOrUpdate(const Step& step) {
  const std::vector<long> keys = KeysFor(step);
  const bool refused = IsRefused(step, keys) || step.tooLong != 0;
  Bytes rows;
  rows.reserve(1);  // as in KeysFor
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const Bytes row = ValueFor(static_cast<unsigned char>(step.bytes + i), keys[i], step.RightLen());
    rows.insert(rows.end(), row.begin(), row.end());
    if (!refused) {
      static_cast<void>(m_model.InsertOrUpdate(step.id, keys[i], row.data(), step.RightLen(), step.number));
    }
  }
  unsigned long long done = NO_COUNT;
  CompareBatch(step, refused, [&] {
    return KavoBatchInsertOrUpdate(step.id, keys.data(), keys.size(), rows.data(), step.RightLen() + step.tooLong,
                                   step.number, &done);
  });
  ExpectEqual(done, refused ? 0 : keys.size(), "done");
}

// Exports.

void CallRunner::SizeAndLength(const Step& step) {
  const bool admittedOnly = step.kind % 2 != 0;
  unsigned long long wanted = NO_COUNT;
  const int status = m_model.GetHtSizeAndVl(step.id, admittedOnly, wanted);
  unsigned long long size = NO_COUNT;
  unsigned length = NO_NUMBER;
  Compare(Function::SIZE_AND_LENGTH, status, [&] { return KavoGetHtSizeAndVl(step.id, &size, &length, admittedOnly); });
  ExpectEqual(size, wanted, "size");
  ExpectEqual(length, status == KAVO_SUCCESS ? step.model->valueLen : NO_NUMBER, "length");
}

void CallRunner::BatchGetNext(const Step& step) {
  ExportBatch(step, m_cursors[step.cursor]);
}

void CallRunner::ExportBatch(const Step& step, void*& cursor) {
  ModelTable* const table = step.model;
  const unsigned eleNum = step.number;
  const unsigned mode = step.kind;
  // Room for what may come, and then for what must not.
  const std::size_t room = std::min<std::size_t>(eleNum, table == nullptr ? 0 : table->entries.size() + 1) + 1;
  KavoHtBatchElement untouched;
  std::memset(&untouched, 0xA5, sizeof(untouched));
  std::vector<KavoHtBatchElement> elements(room);
  std::memset(elements.data(), 0xA5, room * sizeof(untouched));
  KavoHtBatchInfo batch{elements.data(), eleNum, mode, NO_NUMBER};
  unsigned realNum = NO_NUMBER;
  void* const before = cursor;
  const int status = eleNum == 0 ? KAVO_SUCCESS : m_model.BatchGetNext(step.id, cursor);
  Compare(Function::BATCH_GET_NEXT, status, [&] { return KavoBatchGetNext(step.id, &batch, &realNum, &cursor); });
  ExpectEqual(batch.eleNum, eleNum, "eleNum");
  ExpectEqual(batch.exportMode, mode, "exportMode");
  if (status != KAVO_SUCCESS || eleNum == 0) {
    Expect(cursor == before, "the cursor has changed");
    Expect(realNum == 0 || (eleNum != 0 && realNum == NO_NUMBER), "realNum is ", realNum);
    Expect(std::memcmp(&elements[0], &untouched, sizeof(untouched)) == 0, "elements were written");
    return;
  }
  ExpectEqual(batch.tableType, table->type, "tableType");
  Expect(realNum < room || realNum == eleNum, realNum, " elements of a table of ", table->entries.size());
  if (realNum < room) {
    Expect(std::memcmp(&elements[realNum], &untouched, sizeof(untouched)) == 0, "elements beyond realNum were written");
  }
  ExportWalk walk = before == nullptr ? ExportWalk(table->entries) : std::move(table->walks.at(before));
  table->walks.erase(before);
  Expect(cursor == nullptr || before == nullptr || cursor == before, "the cursor has changed");
  walk.Accept(table->type, table->entries, batch, realNum, cursor == nullptr,
              [&](ModelEntry& entry, const KavoHtBatchElement& element) {
                CheckValue(*table, element.key, entry, element.value);
                ExpectEqual(element.count, table->IsFilter() ? entry.count : untouched.count, "count");
              });
  if (cursor != nullptr) {
    Expect(table->walks.emplace(cursor, std::move(walk)).second, "two iterations have one cursor");
  } else if (before != nullptr) {
    m_endedCursor = before;
  }
}

void CallRunner::Walk(const Step& step) {
  // Each batch but the last brings at least one entry that was not reported before.
  const std::size_t most = step.model == nullptr ? 1 : step.model->entries.size() + 2;
  void* cursor = nullptr;
  std::size_t batches = 0;
  do {
    Expect(++batches <= most, "the iteration does not end");
    ExportBatch(step, cursor);
  } while (cursor != nullptr);
}

void CallRunner::SpoilCursor(const Step& step) {
  void* const strange[]{nullptr, &g_noValue, m_endedCursor, m_cursors[(step.cursor + 1) % CURSOR_COUNT]};
  m_cursors[step.cursor] = strange[step.kind % 4];
}

}  // namespace KavoTest
