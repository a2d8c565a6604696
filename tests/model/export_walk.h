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
#include <vector>

#include "kavo.h"

namespace KavoTest {

using Bytes = std::vector<unsigned char>;

struct ModelEntry {
  bool admitted = true;  // it has a value
  Bytes bytes;
  unsigned state = 0;                // export state
  unsigned count = 0;                // occurrences, in filter tables
  unsigned char* address = nullptr;  // of the value, once the library has given it
};

using ModelEntries = std::map<long, ModelEntry>;

// Whether an export of this mode takes the entry.
bool IsDue(unsigned tableType, const ModelEntry& entry, unsigned mode);

class ExportWalk {
 public:
  explicit ExportWalk(const ModelEntries& entries);

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
  void AcceptKey(unsigned tableType, ModelEntries& entries, unsigned mode, long key, unsigned index);
  void AcceptEnd(unsigned tableType, const ModelEntries& entries, const KavoHtBatchInfo& batch, unsigned realNum,
                 bool ended);

  std::set<long> m_notPassed;
  std::set<long> m_maybePassed;
  std::optional<long> m_standing;  // the last entry of a full batch
  bool m_disturbed = false;
};

}  // namespace KavoTest
