// The runner's calls for exports and the partition map.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <utility>

#include "model/call_runner.h"

namespace KavoTest {

void CallRunner::SizeAndLength(const Call& call, unsigned id) {
  const bool admittedOnly = call.kind % 2 != 0;
  unsigned long long wanted = NO_COUNT;
  const int status = m_model.GetHtSizeAndVl(id, admittedOnly, wanted);
  unsigned long long size = NO_COUNT;
  unsigned length = NO_NUMBER;
  Compare(Function::SIZE_AND_LENGTH, status, [&] { return KavoGetHtSizeAndVl(id, &size, &length, admittedOnly); });
  ExpectEqual(size, wanted, "size");
  ExpectEqual(length, status == KAVO_SUCCESS ? m_model.Table(id)->valueLen : NO_NUMBER, "length");
}

void CallRunner::BatchGetNext(unsigned id, unsigned eleNum, unsigned mode, void*& cursor) {
  ModelTable* const table = m_model.Table(id);
  // Room for what may come, and then for what must not.
  const std::size_t room = std::min<std::size_t>(eleNum, table == nullptr ? 0 : table->entries.size() + 1) + 1;
  KavoHtBatchElement untouched;
  std::memset(&untouched, 0xA5, sizeof(untouched));
  std::vector<KavoHtBatchElement> elements(room);
  std::memset(elements.data(), 0xA5, room * sizeof(untouched));
  KavoHtBatchInfo batch{elements.data(), eleNum, mode, NO_NUMBER};
  unsigned realNum = NO_NUMBER;
  void* const before = cursor;
  const int status = eleNum == 0 ? KAVO_SUCCESS : m_model.BatchGetNext(id, cursor);
  Compare(Function::BATCH_GET_NEXT, status, [&] { return KavoBatchGetNext(id, &batch, &realNum, &cursor); });
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

void CallRunner::Walk(unsigned id, unsigned eleNum, unsigned mode) {
  ModelTable* const table = m_model.Table(id);
  // Each batch but the last brings at least one entry that was not reported before.
  const std::size_t most = table == nullptr ? 1 : table->entries.size() + 2;
  void* cursor = nullptr;
  std::size_t batches = 0;
  do {
    Expect(++batches <= most, "the iteration does not end");
    BatchGetNext(id, eleNum, mode, cursor);
  } while (cursor != nullptr);
}

void CallRunner::SpoilCursor(const Call& call) {
  void*& cursor = m_cursors[call.cursor];
  switch (call.kind % 4) {
    case 0:
      cursor = nullptr;
      break;
    case 1:
      cursor = &g_noValue;
      break;
    case 2:
      cursor = m_endedCursor;
      break;
    default:
      cursor = m_cursors[(call.cursor + 1) % CURSOR_COUNT];
  }
}

void CallRunner::InitPartitionMap(const Call& call) {
  std::vector<unsigned> psIds;
  for (unsigned i = 0; i < call.number; ++i) {
    psIds.push_back((call.bytes + i) % call.number);
  }
  psIds.reserve(1);  // an empty list is not null
  Compare(call.function, m_model.InitPartitionMap(call.kind, psIds),
          [&] { return ::InitPartitionMap(call.kind, call.number, psIds.data()); });
}

void CallRunner::QueryPsId(const Call& call, unsigned long long key) {
  unsigned wanted = NO_NUMBER;
  const int status = m_model.QueryPartitionMapPsId(key, wanted);
  unsigned psId = NO_NUMBER;
  Compare(call.function, status, [&] { return QueryPartitionMapPsId(key, &psId); });
  ExpectEqual(psId, wanted, "psId");
}

void CallRunner::BatchPsIds(const Call& call) {
  std::vector<unsigned long long> keys(call.number);
  std::iota(keys.begin(), keys.end(), call.wide);
  std::vector<unsigned> wanted(call.number, NO_NUMBER);
  int status = KAVO_INVALID;
  for (unsigned i = 0; i < call.number; ++i) {
    status = m_model.QueryPartitionMapPsId(keys[i], wanted[i]);
  }
  std::vector<unsigned> psIds(call.number, NO_NUMBER);
  keys.reserve(1);  // an empty array is not null
  psIds.reserve(1);
  unsigned* out = psIds.data();
  Compare(call.function, status, [&] { return GetBatchPsIds(keys.data(), &out, call.number); });
  Expect(out == psIds.data(), "the pointer to the array has changed");
  Expect(psIds == wanted, "wrong psIds");
}

}  // namespace KavoTest
