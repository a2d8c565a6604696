// The order in which the keys of a batch are served: one after the other, as the caller gave them, but in groups whose
// memory is asked for together.
//
//   cells    of a group are asked for while the group before it is served
//   records  are found for a whole group before any is read, so that the processor reads many at once
//   values   are asked for as soon as their record is there, where the call reads or writes them
//
// Measured with 4,000,000 entries of 64 bytes: groups of 8 are a fifth slower, of 32 no faster; without the look ahead
// a tenth slower. To ask for values that the call itself does not touch costs a lookup a third, and gains its caller
// nothing.
#pragma once

#include <algorithm>
#include <type_traits>

#include "kavo.h"
#include "platform/prefetch.h"
#include "table/filter_record.h"

namespace Qen {

inline constexpr unsigned long long KEY_GROUP = 16;

// What is asked for ahead of a key's turn: cells alone where a call takes only addresses, records too where it changes
// them, and values too where it reads or writes them.
enum class Prefetch { CELLS, RECORDS, VALUES };

// serve(first, end, records) for each group of keys, until one answers something else than KAVO_SUCCESS. A record is
// null for a key that was absent when the group was begun.
template <Prefetch PREFETCH, class Table, class Serve>
int ForEachGroup(const Table& table, const long* keys, unsigned long long num, const Serve& serve) {
  using Pointee = typename Table::Pointee;
  const auto askForCells = [&](unsigned long long first, unsigned long long end) {
    for (unsigned long long i = first; i < end; ++i) {
      table.PrefetchHome(keys[i]);
    }
  };
  unsigned long long end = std::min(num, KEY_GROUP);
  askForCells(0, end);
  for (unsigned long long first = 0; first < num;) {
    const unsigned long long nextEnd = end + std::min(num - end, KEY_GROUP);
    askForCells(end, nextEnd);
    Pointee* records[KEY_GROUP];
    for (unsigned long long i = first; i < end; ++i) {
      Pointee* const record = table.FindQuietly(keys[i]);
      records[i - first] = record;
      if constexpr (PREFETCH != Prefetch::CELLS) {
        PrefetchForRead(record);
      }
    }
    if constexpr (PREFETCH == Prefetch::VALUES && std::is_same_v<Pointee, FilterRecord>) {
      for (unsigned long long i = first; i < end; ++i) {
        Pointee* const record = records[i - first];
        PrefetchForRead(record == nullptr ? nullptr : table.GetValue(record));
      }
    }
    const int status = serve(first, end, records);
    if (status != KAVO_SUCCESS) {
      return status;
    }
    first = end;
    end = nextEnd;
  }
  return KAVO_SUCCESS;
}

// use(index, block) for each key; the block is null for a key that is absent or has none.
template <Prefetch PREFETCH, class Table, class Use>
void ForEachBlock(const Table& table, const long* keys, unsigned long long num, const Use& use) {
  const auto serve = [&](unsigned long long first, unsigned long long end, auto* const* records) {
    for (unsigned long long i = first; i < end; ++i) {
      auto* const record = records[i - first];
      use(i, record == nullptr ? nullptr : table.GetValue(record));
    }
    return KAVO_SUCCESS;
  };
  static_cast<void>(ForEachGroup<PREFETCH>(table, keys, num, serve));
}

// serve(index, record) for each key, up to the first that fails; `done` counts those before it. The record is null for
// a key that was absent when its group was begun.
template <Prefetch PREFETCH, class Table, class Serve>
int ForEachKey(const Table& table, const long* keys, unsigned long long num, unsigned long long& done,
               const Serve& serve) {
  return ForEachGroup<PREFETCH>(table, keys, num,
                                [&](unsigned long long first, unsigned long long end, auto* const* records) {
                                  for (done = first; done < end; ++done) {
                                    const int status = serve(done, records[done - first]);
                                    if (status != KAVO_SUCCESS) {
                                      return status;
                                    }
                                  }
                                  return static_cast<int>(KAVO_SUCCESS);
                                });
}

}  // namespace Qen
