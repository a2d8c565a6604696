#include "subjects/cuckoo_subject.h"

#include "subjects/entries.h"
#include "subjects/make_entry.h"

namespace Bench {

SubjectEntry CuckooEntry() {
  return MakeEntry<CuckooSubject>({Fill::GROWN, Fill::SIZED});
}

}  // namespace Bench
