#include "model/export_walk.h"

#include <iterator>

#include "model/expect.h"

namespace KavoTest {

bool IsDue(unsigned tableType, const ModelEntry& entry, unsigned mode) {
  if (!entry.admitted) {
    return true;
  }
  switch (mode) {
    case KAVO_EXPORT_ALL:
      return true;
    case KAVO_EXPORT_MARKED:
      return entry.state == 1;
    case KAVO_EXPORT_UNMARKED_MARK:
    case KAVO_EXPORT_UNMARKED:
      return entry.state == 0;
    default:
      return tableType == KAVO_TABLE_TYPE_FILTER && entry.state == mode;
  }
}

ExportWalk::ExportWalk(const ModelEntries& entries) {
  for (const auto& [key, entry] : entries) {
    m_notPassed.insert(m_notPassed.end(), key);
  }
}

void ExportWalk::AcceptKey(unsigned tableType, ModelEntries& entries, unsigned mode, long key, unsigned index) {
  if (index == 0 && m_standing.has_value()) {
    const bool repeats = IsDue(tableType, entries.at(*m_standing), mode);
    Expect(!repeats || key == *m_standing, "batch begins with key ", key, ", should repeat ", *m_standing);
    m_standing.reset();
    if (repeats) {
      if (mode == KAVO_EXPORT_UNMARKED_MARK && entries.at(key).admitted) {
        entries.at(key).state = 1;
      }
      return;
    }
  }
  const auto at = entries.find(key);
  Expect(at != entries.end(), "exported key ", key, " is not in the table");
  ModelEntry& entry = at->second;
  Expect(IsDue(tableType, entry, mode), "exported key ", key, " is not due");
  const bool first = m_notPassed.erase(key) + m_maybePassed.erase(key) != 0;
  Expect(first || m_disturbed, "key ", key, " is exported twice");
  if (mode == KAVO_EXPORT_UNMARKED_MARK && entry.admitted) {
    entry.state = 1;
  }
}

void ExportWalk::AcceptEnd(unsigned tableType, const ModelEntries& entries, const KavoHtBatchInfo& batch,
                           unsigned realNum, bool ended) {
  if (realNum == 0 && m_standing.has_value()) {
    Expect(!IsDue(tableType, entries.at(*m_standing), batch.exportMode), "key ", *m_standing, " is not repeated");
    m_standing.reset();
  }
  if (ended) {
    Expect(realNum < batch.eleNum, "a full batch ends the iteration");
    for (const long key : m_notPassed) {
      Expect(!IsDue(tableType, entries.at(key), batch.exportMode), "key ", key, " is not exported");
    }
    return;
  }
  Expect(realNum == batch.eleNum, "a batch of ", realNum, " elements of ", batch.eleNum, " does not end the iteration");
  if (batch.eleNum > 1) {
    m_standing = batch.elements[realNum - 1].key;
  }
  if (batch.exportMode == KAVO_EXPORT_ALL) {
    return;  // every key is due
  }
  for (auto key = m_notPassed.begin(); key != m_notPassed.end();) {
    const auto following = std::next(key);
    if (!IsDue(tableType, entries.at(*key), batch.exportMode)) {
      m_maybePassed.insert(m_notPassed.extract(key));
    }
    key = following;
  }
}

}  // namespace KavoTest
