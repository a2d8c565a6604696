// The exported functions on many keys: each key is served as by the single call, in order, and its memory is asked for
// some keys before. All arguments are checked first. An absent key is no failure here, and writes no line.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "adapter/exception_boundary.h"
#include "adapter/key_operations.h"
#include "adapter/table_call.h"
#include "kavo.h"
#include "platform/log.h"
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
  if (valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
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

template <class Table>
int LookupOrInsert(const Table& table, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                   unsigned* isFind, unsigned filterCount, unsigned long long& done) {
  return ForEachKey<Prefetch::RECORDS>(table, keys, num, done, [&](unsigned long long i) {
    unsigned char* block = nullptr;
    const int status = LookupOrInsert(table, keys[i], filterCount, block, isFind[i]);
    if (status == KAVO_SUCCESS) {
      valuePtrs[i] = block == nullptr ? nullptr : ValueBytes(block);
    }
    return status;
  });
}

template <class Table>
int InsertOrUpdate(const Table& table, const long* keys, unsigned long long num, const unsigned char* rows,
                   unsigned valueLen, unsigned filterCount, unsigned long long& done) {
  if (valueLen != table.ValueLen()) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "valuelen not equal table valuelen!");
    return KAVO_INVALID;
  }
  return ForEachKey<Prefetch::VALUES>(table, keys, num, done, [&](unsigned long long i) {
    // An offer's bytes are only read; it has the type of the single call's argument.
    auto* const row = const_cast<unsigned char*>(rows) + i * std::size_t{valueLen};
    return InsertOrUpdate(table, Offer{keys[i], row, valueLen, filterCount});
  });
}

}  // namespace

// What all batches check first; `arrays` names what must not be null.
#define KAVO_CHECK_BATCH(name, hasArrays, arrays, keys, num)                   \
  if (!(hasArrays)) {                                                          \
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, name " failed, " arrays " is null");        \
    return KAVO_INVALID;                                                       \
  }                                                                            \
  if (const unsigned long long bad = FirstNegative(keys, num); bad != (num)) { \
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, name " failed, keys[%llu] < 0", bad);       \
    return KAVO_INVALID;                                                       \
  }                                                                            \
  static_assert(true, "a semicolon follows")

int KavoBatchLookup(unsigned int tableId, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                    unsigned long long* found) {
  KAVO_CHECK_BATCH("KavoBatchLookup", keys != nullptr && valuePtrs != nullptr && found != nullptr,
                   "keys, valuePtrs or found", keys, num);
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) { return Lookup(table, keys, num, valuePtrs, *found); });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoBatchLookup failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoBatchGather(unsigned int tableId, const long* keys, unsigned long long num, unsigned char* rows,
                    unsigned int valueLen, const unsigned char* defaultRow) {
  KAVO_CHECK_BATCH("KavoBatchGather", keys != nullptr && rows != nullptr, "keys or rows", keys, num);
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret =
        OnTable(ref, [&](const auto& table) { return Gather(table, keys, num, rows, valueLen, defaultRow); });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoBatchGather failed, ret[%d]", ret);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoBatchLookupOrInsert(unsigned int tableId, const long* keys, unsigned long long num, unsigned char** valuePtrs,
                            unsigned int* isFind, unsigned int filterCount, unsigned long long* done) {
  if (done != nullptr) {
    *done = 0;
  }
  KAVO_CHECK_BATCH("KavoBatchLookupOrInsert",
                   keys != nullptr && valuePtrs != nullptr && isFind != nullptr && done != nullptr,
                   "keys, valuePtrs, isFind or done", keys, num);
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(ref, [&](const auto& table) {
      return LookupOrInsert(table, keys, num, valuePtrs, isFind, filterCount, *done);
    });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoBatchLookupOrInsert failed, ret[%d], done[%llu]", ret, *done);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}

int KavoBatchInsertOrUpdate(unsigned int tableId, const long* keys, unsigned long long num, const unsigned char* rows,
                            unsigned int valueLen, unsigned int filterCount, unsigned long long* done) {
  if (done != nullptr) {
    *done = 0;
  }
  KAVO_CHECK_BATCH("KavoBatchInsertOrUpdate", keys != nullptr && rows != nullptr && done != nullptr,
                   "keys, rows or done", keys, num);
  try {
    KAVO_RESOLVE(ref, tableId);
    const int ret = OnTable(
        ref, [&](const auto& table) { return InsertOrUpdate(table, keys, num, rows, valueLen, filterCount, *done); });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoBatchInsertOrUpdate failed, ret[%d], done[%llu]", ret, *done);
    }
    return ret;
  }
  KAVO_CATCH_ALL
}
