// The tables of the comparison. Each is compiled by itself.
#pragma once

#include "subject_entry.h"

namespace Bench {

SubjectEntry TbbEntry();
SubjectEntry CuckooEntry();
SubjectEntry BoostEntry();  // where the headers have it
SubjectEntry KavoWholeEntry();
SubjectEntry KavoGradualEntry();
SubjectEntry FloorEntry();

}  // namespace Bench
