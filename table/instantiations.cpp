// The table kinds that the library has, and the hash table of the filter kind.
#include "hash/concurrent_table.h"
#include "hash/traits.h"
#include "hash/value_record.h"
#include "table/basic_es_concurrent_table.h"
#include "table/es_concurrent_table.h"
#include "table/filter_es_concurrent_table.h"
#include "table/filter_record.h"

namespace Qen {

template class EsConcurrentTable<int, long, HashValue, KTraits, VTraits>;
template class EsConcurrentTable<int, long, FHashValue, KTraits, FVTraits>;
template class BasicEsConcurrentTable<int, long, HashValue, KTraits, VTraits>;
template class ConcurrentTable<long, FHashValue, KTraits, FVTraits>;
template class Hashtable<long, FHashValue, KTraits, FVTraits>;
template class HashCore<long, FHashValue, KTraits, FVTraits>;
template class FilterEsConcurrentTable<int, long, FHashValue, KTraits, FVTraits>;

}  // namespace Qen
