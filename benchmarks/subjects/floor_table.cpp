#include "subjects/floor_table.h"

#include "subjects/entries.h"
#include "subjects/make_entry.h"

namespace Bench {

SubjectEntry FloorEntry() {
  return MakeEntry<FloorTable>({Fill::SIZED});
}

}  // namespace Bench
