// Both value records compile, whichever tables a build uses.
#include "hash/concurrent_table.h"
#include "hash/traits.h"

namespace Qen {

template class ConcurrentTable<long, HashValue, KTraits, VTraits>;
template class Hashtable<long, HashValue, KTraits, VTraits>;
template class HashCore<long, HashValue, KTraits, VTraits>;

template class ConcurrentTable<long, FHashValue, KTraits, FVTraits>;
template class Hashtable<long, FHashValue, KTraits, FVTraits>;
template class HashCore<long, FHashValue, KTraits, FVTraits>;

}  // namespace Qen
