#include "subjects/boost_subject.h"

#include "subjects/entries.h"
#include "subjects/make_entry.h"

#if BENCH_HAS_BOOST_MAP

namespace Bench {

SubjectEntry BoostEntry() {
  return MakeEntry<BoostSubject>({Fill::GROWN, Fill::SIZED});
}

}  // namespace Bench

#endif
