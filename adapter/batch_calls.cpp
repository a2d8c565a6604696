// The exported functions on many keys: each key is served as by the single call, in order, and its memory is asked for
// some keys before. All arguments are checked first. An absent key is no failure here, and writes no log line.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "adapter/call_frame.h"
#include "adapter/key_operations.h"
#include "kavo.h"
#include "table/key_groups.h"

using namespace Qen;

namespace {

// The index of the first negative key, or `num`.
unsigned long long FirstNegative(const long* keys, unsigned long long num) noexcept {
  long any = 0;
  for (unsigned long long i = 0; i < num; ++i) {
    any |= keys[i];
  }
  return any >= 0
             ? num
             : static_cast<unsigned long long>(std::find_if(keys, keys + num, [](long key) { return key < 0; }) - keys);
}

template <class Table>
int Lookup(const Table& table, const long* keys, unsigned long long num, unsigned char** valuePtrs,
           unsigned long long& found) {
  unsigned long long count = 0;
  ForEachBlock<Prefetch::CELLS>(table, keys, num, [&](unsigned long long i, unsigned char* block) {
    valuePtrs[i] = block == nullptr ? nullptr : ValueBytes(block);
    count += block == nullptr ? 0 : 1;
  });
  found = count;
  return KAVO_SUCCESS;
}

template <class Table>
int Gather(const Table& table, const long* keys, unsigned long long num, unsigned char* rows, unsigned valueLen,
           const unsigned char* defaultRow) {
  KAVO_REFUSE_IF(valueLen != table.ValueLen(), "valuelen not equal table valuelen!");
  const std::size_t len = valueLen;
  ForEachBlock<Prefetch::VALUES>(table, keys, num, [&](unsigned long long i, unsigned char* block) {
    const unsigned char* const from = block == nullptr ? defaultRow : ValueBytes(block);
    if (from == nullptr) {
      std::memset(rows + i * len, 0, len);
    } else {
      std::memcpy(rows + i * len, from, len);
    }
  });
  return KAVO_SUCCESS;
}

// countOf(i) is the number of occurrences that key i stands for.
template <class Table, class CountOf>
int LookupOrInsert(const Table& table, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                   unsigned* isFind, const CountOf& countOf, unsigned long long& done) {
  constexpr bool BASIC = std::is_same_v<Table, BasicTable>;
  constexpr Prefetch AHEAD = BASIC ? Prefetch::CELLS : Prefetch::RECORDS;
  return ForEachKey<AHEAD>(table, keys, num, done, [&](unsigned long long i, auto* record) {
    unsigned char* block = nullptr;
    int status = KAVO_SUCCESS;
    if (record != nullptr) {  // the group's search has found the key, and keys stay
      status = FindAgain(table, *record, countOf(i), block);
      isFind[i] = status == KAVO_SUCCESS ? 1 : isFind[i];
    } else {
      status = LookupOrInsert(table, keys[i], countOf(i), block, isFind[i]);
    }
    if (status == KAVO_SUCCESS) {
      valuePtrs[i] = block == nullptr ? nullptr : ValueBytes(block);
    }
    return status;
  });
}

template <class Table>
int InsertOrUpdate(const Table& table, const long* keys, unsigned long long num, const unsigned char* rows,
                   unsigned valueLen, unsigned filterCount, unsigned long long& done) {
  KAVO_REFUSE_IF(valueLen != table.ValueLen(), "valuelen not equal table valuelen!");
  return ForEachKey<Prefetch::VALUES>(table, keys, num, done, [&](unsigned long long i, const auto*) {
    // An offer's bytes are only read; it has the type of the single call's argument.
    auto* const row = const_cast<unsigned char*>(rows) + i * std::size_t{valueLen};
    return InsertOrUpdate(table, Offer{keys[i], row, valueLen, filterCount});
  });
}

}  // namespace

// The keys of a batch must not be negative; `name` is the exported function's.
#define KAVO_REFUSE_NEGATIVE(name, keys, num)                       \
  const unsigned long long kavoNegative = FirstNegative(keys, num); \
  KAVO_REFUSE_IF(kavoNegative != (num), name " failed, keys[%llu] < 0", kavoNegative)

int KavoBatchLookup(unsigned int tableId, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                    unsigned long long* found) {
  KAVO_REFUSE_IF(keys == nullptr || valuePtrs == nullptr || found == nullptr,
                 "KavoBatchLookup failed, keys, valuePtrs or found is null");
  KAVO_REFUSE_NEGATIVE("KavoBatchLookup", keys, num);
  const auto lookup = [&](const auto& table) { return Lookup(table, keys, num, valuePtrs, *found); };
  KAVO_SERVE(tableId, lookup, "KavoBatchLookup failed, ret[%d]");
}

int KavoBatchGather(unsigned int tableId, const long* keys, unsigned long long num, unsigned char* rows,
                    unsigned int valueLen, const unsigned char* defaultRow) {
  KAVO_REFUSE_IF(keys == nullptr || rows == nullptr, "KavoBatchGather failed, keys or rows is null");
  KAVO_REFUSE_NEGATIVE("KavoBatchGather", keys, num);
  const auto gather = [&](const auto& table) { return Gather(table, keys, num, rows, valueLen, defaultRow); };
  KAVO_SERVE(tableId, gather, "KavoBatchGather failed, ret[%d]");
}

int KavoBatchLookupOrInsert(unsigned int tableId, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                            unsigned int* isFind, unsigned int filterCount, unsigned long long* done) {
  if (done != nullptr) {
    *done = 0;
  }
  KAVO_REFUSE_IF(keys == nullptr || valuePtrs == nullptr || isFind == nullptr || done == nullptr,
                 "KavoBatchLookupOrInsert failed, keys, valuePtrs, isFind or done is null");
  KAVO_REFUSE_NEGATIVE("KavoBatchLookupOrInsert", keys, num);
  const auto lookupOrInsert = [&](const auto& table) {
    return LookupOrInsert(
        table, keys, num, valuePtrs, isFind, [filterCount](unsigned long long) { return filterCount; }, *done);
  };
  KAVO_SERVE(tableId, lookupOrInsert, "KavoBatchLookupOrInsert failed, ret[%d], done[%llu]", *done);
}

int KavoBatchOffer(unsigned int tableId, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                   unsigned int* isFind, const unsigned int* counts, unsigned long long* done) {
  if (done != nullptr) {
    *done = 0;
  }
  KAVO_REFUSE_IF(keys == nullptr || valuePtrs == nullptr || isFind == nullptr || counts == nullptr || done == nullptr,
                 "KavoBatchOffer failed, keys, valuePtrs, isFind, counts or done is null");
  KAVO_REFUSE_NEGATIVE("KavoBatchOffer", keys, num);
  const auto offer = [&](const auto& table) {
    return LookupOrInsert(
        table, keys, num, valuePtrs, isFind, [counts](unsigned long long i) { return counts[i]; }, *done);
  };
  KAVO_SERVE(tableId, offer, "KavoBatchOffer failed, ret[%d], done[%llu]", *done);
}

int KavoBatchInsertOrUpdate(unsigned int tableId, const long* keys, unsigned long long num, const unsigned char* rows,
                            unsigned int valueLen, unsigned int filterCount, unsigned long long* done) {
  if (done != nullptr) {
    *done = 0;
  }
  KAVO_REFUSE_IF(keys == nullptr || rows == nullptr || done == nullptr,
                 "KavoBatchInsertOrUpdate failed, keys, rows or done is null");
  KAVO_REFUSE_NEGATIVE("KavoBatchInsertOrUpdate", keys, num);
  const auto insertOrUpdate = [&](const auto& table) {
    return InsertOrUpdate(table, keys, num, rows, valueLen, filterCount, *done);
  };
  KAVO_SERVE(tableId, insertOrUpdate, "KavoBatchInsertOrUpdate failed, ret[%d], done[%llu]", *done);
}
