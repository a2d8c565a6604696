// The order in which the keys of a batch are served.
#pragma once

#include <algorithm>
#include <cstddef>

#include "kavo.h"
#include "platform/prefetch.h"

#ifndef G
#define G 16
#endif
#ifndef BLOCKS
#define BLOCKS 1
#endif
namespace Qen {

// use(index, block) for each key in order; the block is null for a key that is absent or has none.
template <class Table, class Use>
void ForEachBlock(const Table& table, const long* keys, unsigned long long num, Use use) {
  using Pointee = typename Table::Pointee;
  unsigned long long asked = std::min<unsigned long long>(num, G);
  for (unsigned long long i = 0; i < asked; ++i) {
    table.PrefetchHome(keys[i]);
  }
  for (unsigned long long first = 0; first < num;) {
    const unsigned long long end = asked;
    asked = std::min<unsigned long long>(num, end + G);
    for (unsigned long long i = end; i < asked; ++i) {
      table.PrefetchHome(keys[i]);
    }
    Pointee* records[G];
    for (unsigned long long i = first; i < end; ++i) {
      Pointee* const record = table.FindQuietly(keys[i]);
      records[i - first] = record;
      if (BLOCKS) PrefetchForRead(record);
    }
    for (unsigned long long i = first; i < end; ++i) {
      Pointee* const record = records[i - first];
      use(i, record == nullptr ? nullptr : table.GetValue(record));
    }
    first = end;
  }
}

// serve(index) for each key in order, up to the first that fails; `done` counts the others.
template <class Table, class Serve>
int ForEachKey(const Table& table, const long* keys, unsigned long long num, unsigned long long& done, Serve serve) {
  unsigned long long asked = 0;
  while (done < num) {
    if (done == asked) {
      asked = std::min<unsigned long long>(num, done + G);
      for (unsigned long long i = done; i < asked; ++i) table.PrefetchHome(keys[i]);
      if (BLOCKS) for (unsigned long long i = done; i < asked; ++i) PrefetchForRead(table.FindQuietly(keys[i]));
    }
    const int status = serve(done);
    if (status != KAVO_SUCCESS) {
      return status;
    }
    ++done;
  }
  return KAVO_SUCCESS;
}

}  // namespace Qen
