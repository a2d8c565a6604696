// What one export cursor may still give. In which order a walk comes to the keys is the library's business, so the
// model knows of each key only whether the walk has certainly not come to it, may have passed it, or has reported it:
//
//   not passed    a walk that ends must report it if it is due then; due and not reported, it has not been passed
//   maybe passed  it was not due in some batch; may be reported once more, or not
//   reported      in neither set; not reported again, but for the last entry of a full batch
//
// A walk beside which a new key was inserted is disturbed: it may also report keys that are new, or some twice.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "kavo.h"
#include "model/expect.h"

namespace KavoTest {

struct ModelEntry {
  bool admitted = true;  // it has a value
  Bytes bytes;
  unsigned state = 0;                // export state
  unsigned count = 0;                // occurrences, in filter tables
  unsigned char* address = nullptr;  // of the value, once the library has given it
};

using ModelEntries = std::map<long, ModelEntry>;

// Whether an export of this mode takes the entry.
inline bool IsDue(unsigned tableType, const ModelEntry& entry, unsigned mode) {
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

class ExportWalk {
 public:
  explicit ExportWalk(const ModelEntries& entries) {
    for (const auto& [key, entry] : entries) {
      m_notPassed.insert(m_notPassed.end(), key);
    }
  }

  // A new key was inserted into the table.
  void Disturb() { m_disturbed = true; }

  // The library's answer to one call, which must be one of those that are right; throws Mismatch. Marks what the call
  // has marked. `found` looks at each element beside its entry.
  template <class Found>
  void Accept(unsigned tableType, ModelEntries& entries, const KavoHtBatchInfo& batch, unsigned realNum, bool ended,
              Found found) {
    for (unsigned i = 0; i < realNum; ++i) {
      AcceptKey(tableType, entries, batch.exportMode, batch.elements[i].key, i);
      found(entries.at(batch.elements[i].key), batch.elements[i]);
    }
    AcceptEnd(tableType, entries, batch, realNum, ended);
  }

 private:
  void AcceptKey(unsigned tableType, ModelEntries& entries, unsigned mode, long key, unsigned index) {
    const std::optional<long> standing = index == 0 ? std::exchange(m_standing, std::nullopt) : std::nullopt;
    const bool repeats = standing.has_value() && IsDue(tableType, entries.at(*standing), mode);
    Expect(!repeats || key == *standing, "batch begins with key ", key, ", should repeat ", standing.value_or(0));
    const auto at = entries.find(key);
    Expect(at != entries.end(), "exported key ", key, " is not in the table");
    ModelEntry& entry = at->second;
    Expect(IsDue(tableType, entry, mode), "exported key ", key, " is not due");
    const bool first = m_notPassed.erase(key) + m_maybePassed.erase(key) != 0;
    Expect(first || repeats || m_disturbed, "key ", key, " is exported twice");
    if (mode == KAVO_EXPORT_UNMARKED_MARK && entry.admitted) {
      entry.state = 1;
    }
  }

  void AcceptEnd(unsigned tableType, const ModelEntries& entries, const KavoHtBatchInfo& batch, unsigned realNum,
                 bool ended) {
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
    Expect(realNum == batch.eleNum, "a batch of ", realNum, " elements of ", batch.eleNum,
           " does not end the iteration");
    if (batch.eleNum > 1) {
      m_standing = batch.elements[realNum - 1].key;
    }
    if (batch.exportMode == KAVO_EXPORT_ALL) {
      return;  // every key is due
    }
    std::erase_if(m_notPassed, [&](long key) {
      const bool isDue = IsDue(tableType, entries.at(key), batch.exportMode);
      return !isDue && m_maybePassed.insert(key).second;
    });
  }

  std::set<long> m_notPassed;
  std::set<long> m_maybePassed;
  std::optional<long> m_standing;  // the last entry of a full batch
  bool m_disturbed = false;
};

}  // namespace KavoTest
