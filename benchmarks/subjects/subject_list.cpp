#include "subject_entry.h"
#include "subjects/boost_subject.h"
#include "subjects/entries.h"

namespace Bench {

const std::vector<SubjectEntry>& Subjects() {
  static const std::vector<SubjectEntry> subjects = {
    TbbEntry(),
    CuckooEntry(),
#if BENCH_HAS_BOOST_MAP
    BoostEntry(),
#endif
    KavoWholeEntry(),
    KavoGradualEntry(),
    FloorEntry(),
  };
  return subjects;
}

const SubjectEntry* FindSubject(std::string_view name) {
  for (const SubjectEntry& subject : Subjects()) {
    if (subject.name == name) {
      return &subject;
    }
  }
  return nullptr;
}

}  // namespace Bench
