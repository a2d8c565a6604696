#include "subjects/kavo_subject.h"

#include "subjects/entries.h"
#include "subjects/make_entry.h"

namespace Bench {

void SilenceKavo() {
  const KavoLogSink sink{[](void*, unsigned, int) { return 0; }, [](void*, unsigned, int, const char*, va_list) {},
                         nullptr};
  Check(KavoSetLogSink(&sink) == KAVO_SUCCESS, "KavoSetLogSink");
}

SubjectEntry KavoWholeEntry() {
  return MakeEntry<KavoSubject<KAVO_REHASH_WHOLE_TABLE>>({Fill::GROWN, Fill::SIZED, Fill::SIZED_FIND_OR_INSERT});
}

SubjectEntry KavoGradualEntry() {
  return MakeEntry<KavoSubject<KAVO_REHASH_GRADUAL>>({Fill::GROWN});
}

}  // namespace Bench
