// The runner's calls for exports.
#include <algorithm>
#include <cstring>
#include <utility>

#include "model/call_runner.h"

namespace KavoTest {

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
