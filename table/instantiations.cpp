// The table kinds that the library has.
#include "hash/traits.h"
#include "hash/value_record.h"
#include "table/basic_es_concurrent_table.h"
#include "table/es_concurrent_table.h"
#include "table/filter_es_concurrent_table.h"

namespace Qen {

template class EsConcurrentTable<int, long, HashValue, KTraits, VTraits>;
template class EsConcurrentTable<int, long, FHashValue, KTraits, FVTraits>;
template class BasicEsConcurrentTable<int, long, HashValue, KTraits, VTraits>;
template class FilterEsConcurrentTable<int, long, FHashValue, KTraits, FVTraits>;

}  // namespace Qen
