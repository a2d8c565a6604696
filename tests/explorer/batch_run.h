// Scenarios of batches on one table, through the exported functions: what each thread calls, and the promises held
// against it.
#pragma once

#include <functional>
#include <vector>

#include "kavo.h"

namespace KavoExplorer {

class BatchRun;

using Keys = std::vector<long>;
using Batch = std::function<void(BatchRun&)>;

inline constexpr unsigned BATCH_FREQ = 3;  // of filter tables: the third occurrence admits

Batch Offers(const Keys& keys, unsigned filterCount = 0);               // KavoBatchLookupOrInsert
Batch OffersWithoutMemory(const Keys& keys, unsigned filterCount = 0);  // no value blocks but those in stock
// KavoBatchInsertOrUpdate, each element with a row of its own. A key that another thread gathers meanwhile stands there
// once, in one batch only: its value must not change then.
Batch Puts(const Keys& keys);
Batch Gathers(const Keys& keys);
Batch Looks(const Keys& keys);
Batch Walks();  // over all entries, with a cursor

struct BatchTable {
  unsigned type = KAVO_TABLE_TYPE_BASIC;
  unsigned mode = KAVO_REHASH_WHOLE_TABLE;
};

// Every order of the threads' steps that the budget reaches keeps the promises, if the batches of `before` have come
// first. The table has 16 cells, and so as many buckets, and stock for 8 values.
void ExpectBatchesHold(const std::vector<Batch>& before, const std::vector<Batch>& threads,
                       const BatchTable& table = {});

}  // namespace KavoExplorer
