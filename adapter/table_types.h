// The table classes behind the registry's table types.
#pragma once

#include "hash/traits.h"
#include "hash/value_record.h"
#include "table/basic_es_concurrent_table.h"
#include "table/filter_es_concurrent_table.h"

namespace Qen {

using BasicTable = BasicEsConcurrentTable<int, long, HashValue, KTraits, VTraits>;
using FilterTable = FilterEsConcurrentTable<int, long, FHashValue, KTraits, FVTraits>;

}  // namespace Qen
