#include "subjects/tbb_subject.h"

#include "subjects/entries.h"
#include "subjects/make_entry.h"

namespace Bench {

SubjectEntry TbbEntry() {
  return MakeEntry<TbbSubject>({Fill::GROWN, Fill::SIZED});
}

}  // namespace Bench
