// All members compile, whichever of them a build uses.
#include "hash/concurrent_table.h"
#include "hash/traits.h"
#include "hash/value_record.h"

namespace Qen {

template class ConcurrentTable<long, HashValue, KTraits, VTraits>;
template class Hashtable<long, HashValue, KTraits, VTraits>;
template class HashCore<long, HashValue, KTraits, VTraits>;

}  // namespace Qen
