/*
 * The C++ face of kavo.h: tables, rows, exports, the partition map and the log as objects; and a mixer of keys.
 *
 * Header-only, C++20, the standard library alone; link libkavo_base.so as C programs do. Each function is one call of
 * kavo.h, inlined: what that header says of the call holds here (types, units, threads, what may run beside what, log
 * lines), and this one says only what C++ adds.
 *
 * CONVENTIONS
 *
 *  1. Failures throw kavo::Error, which says the function, the table and the cause. A function whose name begins with
 *     Try answers what is an ordinary answer (absent, present) by its result, and throws for every other failure. The
 *     library writes its log lines either way: a miss of TryLookup is logged as a miss of KavoLookup is. BatchLookup
 *     writes none.
 *  2. Arrays are spans, or any contiguous range of trivially copyable elements, whose bytes are the value or the rows.
 *     Two that must have one length and have not: std::length_error, before anything is done.
 *  3. Value bytes belong to the table, as in kavo.h; a Row is a view of them and is good as long as they are.
 *  4. Objects are not shared while they are moved from, assigned to or destroyed. The const functions of one Table may
 *     be called by any number of threads at once.
 */
#ifndef KAVO_HPP
#define KAVO_HPP

#include <algorithm>
#include <array>
#include <concepts>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <limits>
#include <optional>
#include <ranges>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "kavo.h"

namespace kavo {

/* FAILURES */

enum class Status : int {
  SUCCESS = KAVO_SUCCESS,
  FAILED = KAVO_FAILED,
  EXISTS = KAVO_EXISTS,
  NO_MEMORY = KAVO_NO_MEMORY,
  INVALID = KAVO_INVALID,
  UNSUPPORTED = KAVO_UNSUPPORTED,
};

/* The name of kavo.h, and what it may mean. */
constexpr const char* NameOf(Status status) noexcept {
  switch (status) {
    case Status::SUCCESS:
      return "KAVO_SUCCESS";
    case Status::FAILED:
      return "KAVO_FAILED, a wait passed its limit, a lock failed, or no such partition map";
    case Status::EXISTS:
      return "KAVO_EXISTS, what was to be created exists already";
    case Status::NO_MEMORY:
      return "KAVO_NO_MEMORY, memory could not be obtained, or bytes not be copied";
    case Status::INVALID:
      return "KAVO_INVALID, a bad argument, no such table, or an absent key (to insert: a present one)";
    case Status::UNSUPPORTED:
      return "KAVO_UNSUPPORTED, a table of the wrong kind, or no partition map";
  }
  return "a status unknown to this header";
}

/* A call that failed. Its text is, say, "KavoUpdate on table 7 answered -4 (KAVO_INVALID, ...)". */
class Error : public std::runtime_error {
 public:
  Error(const char* function, std::optional<unsigned> table, Status cause, std::size_t done = 0)
      : std::runtime_error(std::string(function) + (table ? " on table " + std::to_string(*table) : "") + " answered " +
                           std::to_string(static_cast<int>(cause)) + " (" + NameOf(cause) + ")"),
        m_function(function),
        m_table(table),
        m_cause(cause),
        m_done(done) {}

  const char* Function() const noexcept { return m_function; }       /* of kavo.h; a string literal */
  std::optional<unsigned> Table() const noexcept { return m_table; } /* none: the call is on no table */
  Status Cause() const noexcept { return m_cause; }
  std::size_t Done() const noexcept { return m_done; } /* of a batch that inserts: the keys served before, else 0 */

 private:
  const char* m_function;
  std::optional<unsigned> m_table;
  Status m_cause;
  std::size_t m_done;
};

namespace Detail {

/* Out of line, so that a call that succeeds pays for one comparison. */
[[noreturn, gnu::cold, gnu::noinline]] inline void Fail(const char* function, unsigned table, int status,
                                                        std::size_t done) {
  throw Error(function, table, Status{status}, done);
}
[[noreturn, gnu::cold, gnu::noinline]] inline void Fail(const char* function, int status) {
  throw Error(function, std::nullopt, Status{status});
}
inline void Check(const char* function, unsigned table, int status, std::size_t done = 0) {
  if (status != KAVO_SUCCESS) [[unlikely]] {
    Fail(function, table, status, done);
  }
}
inline void CheckWithoutTable(const char* function, int status) {
  if (status != KAVO_SUCCESS) [[unlikely]] {
    Fail(function, status);
  }
}
[[noreturn, gnu::cold, gnu::noinline]] inline void FailLength(const char* what) {
  throw std::length_error(what);
}
inline void CheckLength(bool fits, const char* what) {
  if (!fits) [[unlikely]] {
    FailLength(what);
  }
}

/* A length that no 32 bits hold is no table's value length: as the largest number it is refused. */
constexpr unsigned Length(std::size_t bytes) noexcept {
  constexpr unsigned MAX = std::numeric_limits<unsigned>::max();
  return bytes < MAX ? static_cast<unsigned>(bytes) : MAX;
}

}  // namespace Detail

/* ROWS */

template <typename T>
concept Element = std::is_trivially_copyable_v<T> && alignof(T) <= 8;

/* Contiguous elements, whose bytes are a value, or rows one after the other. */
template <typename R>
concept Elements = std::ranges::contiguous_range<R> && std::ranges::sized_range<R> &&
    Element<std::remove_cv_t<std::ranges::range_value_t<R>>>;

/*
 * A value, seen as elements of one type: a span with all that a span can do. Empty, and false, for a key that a filter
 * table only counts. Reads and writes through it are the caller's to order (see kavo.h, THREADS).
 */
template <Element T>
class Row : public std::span<T> {
 public:
  Row() noexcept = default;
  /* `bytes` at `value`, which is aligned to 8. Throws std::length_error unless they are a whole number of elements. */
  Row(unsigned char* value, std::size_t bytes) : std::span<T>(reinterpret_cast<T*>(value), bytes / sizeof(T)) {
    Detail::CheckLength(bytes % sizeof(T) == 0, "a value is no whole number of a row's elements");
  }
  explicit operator bool() const noexcept { return !this->empty(); }
};

namespace Detail {

template <Elements R>
std::size_t Bytes(const R& range) noexcept {
  return std::ranges::size(range) * sizeof(std::ranges::range_value_t<R>);
}
template <Elements R>
const unsigned char* Address(const R& range) noexcept {
  return reinterpret_cast<const unsigned char*>(std::ranges::data(range));
}
/* The calls that insert and update read the bytes at their pointer only. */
template <Elements R>
unsigned char* Unconst(const R& range) noexcept {
  return const_cast<unsigned char*>(Address(range));
}

}  // namespace Detail

/* TABLES */

enum class TableType : unsigned { BASIC = KAVO_TABLE_TYPE_BASIC, FILTER = KAVO_TABLE_TYPE_FILTER };
enum class RehashMode : unsigned { GRADUAL = KAVO_REHASH_GRADUAL, WHOLE_TABLE = KAVO_REHASH_WHOLE_TABLE };
enum class ExportMode : unsigned {
  ALL = KAVO_EXPORT_ALL,
  MARKED = KAVO_EXPORT_MARKED,
  UNMARKED_MARK = KAVO_EXPORT_UNMARKED_MARK,
  UNMARKED = KAVO_EXPORT_UNMARKED,
};
/* Which exports a new entry is due in, in the numbers of KavoInsert's `state`. */
enum class NewState : unsigned {
  FULL_ONLY = 0, /* In full exports, until it is changed (export state 2). */
  EXPORTED = 1,  /* As if it had just been exported (1). */
  CHANGED = 2,   /* In the next export of changes (0). */
};

/*
 * The entries of one export, each once: a range to be gone through once, from one thread (an input iterator and a
 * sentinel). An element is good until the iterator moves on; its address in the table stays. It may be given up at any
 * time, and is moved only before begin(). What may run meanwhile, and what giving up leaves: kavo.h, EXPORT.
 *
 * begin() and ++ throw Error, and std::bad_alloc, when the next batch cannot be had; entries that the library handed
 * out before its failure are given first.
 */
class Entries {
 public:
  Entries(unsigned table, ExportMode mode, unsigned batch) : m_table(table), m_mode(mode), m_batch(batch) {}
  Entries(Entries&&) = default;
  Entries& operator=(Entries&&) = default;

  class Iterator {
   public:
    using iterator_concept = std::input_iterator_tag;
    using value_type = KavoHtBatchElement;
    using difference_type = std::ptrdiff_t;

    Iterator() = default;
    explicit Iterator(Entries& entries) : m_entries(&entries) {}
    const KavoHtBatchElement& operator*() const { return m_entries->m_batch[m_entries->m_next]; }
    const KavoHtBatchElement* operator->() const { return &**this; }
    Iterator& operator++() {
      ++m_entries->m_next;
      m_entries->Settle();
      return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const Iterator& iterator, std::default_sentinel_t) { return iterator.AtEnd(); }

   private:
    bool AtEnd() const { return m_entries->m_next == m_entries->m_filled; }

    Entries* m_entries = nullptr;
  };

  Iterator begin() {
    Settle();
    return Iterator(*this);
  }
  static std::default_sentinel_t end() { return std::default_sentinel; }

 private:
  void Settle() {
    while (m_next == m_filled && !m_ended) {
      Fetch();
    }
  }

  void Fetch() {
    const bool first = m_filled == 0;
    const KavoHtBatchElement last = first ? KavoHtBatchElement{} : m_batch[m_filled - 1];
    KavoHtBatchInfo info{m_batch.data(), static_cast<unsigned>(m_batch.size()), static_cast<unsigned>(m_mode), 0};
    m_next = 0;
    m_filled = 0;
    const int status = KavoBatchGetNext(m_table, &info, &m_filled, &m_cursor);
    if (status != KAVO_SUCCESS && m_filled == 0) {
      m_ended = true;
      Detail::Check("KavoBatchGetNext", m_table, status);
    }
    m_ended = status == KAVO_SUCCESS && m_cursor == nullptr;
    // The entry that a full batch ended with may come again. What a marking export gives again was changed meanwhile.
    const KavoHtBatchElement& head = m_batch.front();
    if (!first && m_filled > 0 && head.key == last.key &&
        (head.value == nullptr || (head.value == last.value && m_mode != ExportMode::UNMARKED_MARK))) {
      m_next = 1;
    }
  }

  unsigned m_table;
  ExportMode m_mode;
  std::vector<KavoHtBatchElement> m_batch;  // zeros at first: the library writes no counts of basic tables
  unsigned m_next = 0;
  unsigned m_filled = 0;
  void* m_cursor = nullptr;
  bool m_ended = false;
};

/* What LookupOrInsert answers. `created`: this call created the key with a value of zero bytes (`isFind` 0). */
template <Element T>
struct FoundOrNew {
  Row<T> row;
  bool created;
};

/*
 * A table, destroyed with its object. Functions that give rows give Row<T>, T bytes unless named:
 * table.Lookup<float>(key).
 *
 * Threads: an object is a table id and costs no more; functions are const that work on the table. Before an object that
 * owns a table is destroyed, assigned to or Destroy() is called, no call on the id may be in progress.
 */
class Table {
 public:
  /* Creates the table, for about `size` entries of `valueLen` bytes. */
  Table(unsigned id, unsigned size, unsigned valueLen, TableType type = TableType::BASIC)
      : m_id(id), m_valueLen(valueLen), m_type(type), m_owned(true) {
    Detail::Check("KavoInitHashTable", id, KavoInitHashTable(id, size, valueLen, static_cast<unsigned>(type)));
  }
  /* Takes over a table that exists; `valueLen` and `type` are those that it was created with. Throws Error if the id is
     not in use or the length is another. */
  static Table Adopt(unsigned id, unsigned valueLen, TableType type = TableType::BASIC) {
    // An empty batch is checked like any other, and needs addresses only.
    const long key = 0;
    unsigned char row = 0;
    Detail::Check("KavoBatchGather", id, KavoBatchGather(id, &key, 0, &row, valueLen, nullptr));
    return Table(id, valueLen, type);
  }
  /* What was moved from owns nothing, and is good for destruction and assignment. */
  Table(Table&& other) noexcept
      : m_id(other.m_id),
        m_valueLen(other.m_valueLen),
        m_type(other.m_type),
        m_owned(std::exchange(other.m_owned, false)) {}
  Table& operator=(Table&& other) noexcept {
    std::swap(m_id, other.m_id);
    std::swap(m_valueLen, other.m_valueLen);
    std::swap(m_type, other.m_type);
    std::swap(m_owned, other.m_owned);
    const Table before(std::move(other));  // what this object owned goes now, not with `other`
    return *this;
  }
  /* A failure to destroy is in the library's log. */
  ~Table() {
    if (m_owned) {
      static_cast<void>(KavoUninitHashTable(m_id));
    }
  }

  /* Destroys the table now; the object owns nothing from then on, whatever the call answered. */
  void Destroy() {
    if (std::exchange(m_owned, false)) {
      Detail::Check("KavoUninitHashTable", m_id, KavoUninitHashTable(m_id));
    }
  }
  /* Gives the table up to the caller, who destroys it or has it adopted; it lives on. The object can still be called
     on. Returns the id. */
  unsigned Release() noexcept {
    m_owned = false;
    return m_id;
  }

  unsigned Id() const noexcept { return m_id; }
  unsigned ValueLen() const noexcept { return m_valueLen; } /* in bytes */
  TableType Type() const noexcept { return m_type; }

  /* ONE KEY */

  /* The value of a key; an empty row if a filter table only counts it. Throws if it is absent. */
  template <Element T = unsigned char>
  Row<T> Lookup(long key) const {
    return Found<T>("KavoLookup", KavoLookup, key);
  }
  /* The same for a key that may be absent: none then. */
  template <Element T = unsigned char>
  std::optional<Row<T>> TryLookup(long key) const {
    return TryFound<T>("KavoLookup", KavoLookup, key);
  }
  /* Lookup and TryLookup for a value that is about to be changed in place. */
  template <Element T = unsigned char>
  Row<T> LookupForUpdate(long key) const {
    return Found<T>("KavoLookupForUpdate", KavoLookupForUpdate, key);
  }
  template <Element T = unsigned char>
  std::optional<Row<T>> TryLookupForUpdate(long key) const {
    return TryFound<T>("KavoLookupForUpdate", KavoLookupForUpdate, key);
  }

  /* Overwrites the value of a key that is present; `value` has ValueLen() bytes. Throws if there is none. */
  template <Elements R>
  void Update(long key, const R& value) const {
    Detail::Check("KavoUpdate", m_id, UpdateStatus(key, value));
  }
  /* False when the key is absent, or only counted. */
  template <Elements R>
  bool TryUpdate(long key, const R& value) const {
    const int status = UpdateStatus(key, value);
    if (status == KAVO_INVALID && key >= 0 && Detail::Bytes(value) == m_valueLen) {
      return false;
    }
    Detail::Check("KavoUpdate", m_id, status);
    return true;
  }

  /* Inserts a key that is absent, with a value of ValueLen() bytes. Throws if it is present, be it only counted. */
  template <Elements R>
  void Insert(long key, const R& value, unsigned count = 0, NewState state = NewState::CHANGED) const {
    Detail::Check("KavoInsert", m_id, InsertStatus(key, value, count, state));
  }
  /* False when the key is present; it is not changed then. */
  template <Elements R>
  bool TryInsert(long key, const R& value, unsigned count = 0, NewState state = NewState::CHANGED) const {
    return Inserted(key, Detail::Bytes(value) == m_valueLen, InsertStatus(key, value, count, state));
  }
  /* Filter tables: a key without a value, which has been offered `count` times. */
  bool TryInsertCounted(long key, unsigned count, NewState state = NewState::CHANGED) const {
    return Inserted(key, m_type == TableType::FILTER,
                    KavoInsert(m_id, key, nullptr, 0, count, static_cast<unsigned>(state)));
  }

  /* Inserts a key, or overwrites the value that it has. */
  template <Elements R>
  void InsertOrUpdate(long key, const R& value, unsigned count = 0) const {
    Detail::Check("KavoInsertOrUpdate", m_id,
                  KavoInsertOrUpdate(m_id, key, Detail::Unconst(value), Detail::Length(Detail::Bytes(value)), count));
  }

  /* Finds a key, or inserts it with zero bytes; a filter table counts `occurrences`. Mind what kavo.h says of `isFind`
     in filter tables. */
  template <Element T = unsigned char>
  FoundOrNew<T> LookupOrInsert(long key, unsigned occurrences = 1) const {
    unsigned char* value;
    unsigned length = 0;
    unsigned isFind;
    Detail::Check("KavoLookupOrInsert", m_id, KavoLookupOrInsert(m_id, key, &value, &length, &isFind, occurrences));
    return {Row<T>(value, length), isFind == 0};
  }

  /* The row at an address that this table gave, in a batch or an export; empty for null. */
  template <Element T = unsigned char>
  Row<T> At(unsigned char* value) const {
    return Row<T>(value, value == nullptr ? 0 : m_valueLen);
  }

  /* MANY KEYS */

  /* values[i] becomes the address of keys[i]'s value, or null. Returns how many are not null. */
  std::size_t BatchLookup(std::span<const long> keys, std::span<unsigned char*> values) const {
    Detail::CheckLength(keys.size() == values.size(), "BatchLookup: as many addresses as keys");
    unsigned long long found = 0;
    if (!keys.empty()) {
      Detail::Check("KavoBatchLookup", m_id, KavoBatchLookup(m_id, keys.data(), keys.size(), values.data(), &found));
    }
    return found;
  }
  /* Copies the values out, row by row; `rows` has ValueLen() bytes a key. Where there is no value: `defaultRow`, of
     ValueLen() bytes, or zeros if it is empty. */
  template <Elements R, Elements D = std::span<const unsigned char>>
  void BatchGather(std::span<const long> keys, R&& rows, const D& defaultRow = {}) const {
    const std::size_t length = Detail::Bytes(defaultRow);
    Detail::CheckLength(Detail::Bytes(rows) == keys.size() * m_valueLen && (length == 0 || length == m_valueLen),
                        "BatchGather: a row for each key, and one by default");
    if (!keys.empty()) {
      Detail::Check(
          "KavoBatchGather", m_id,
          KavoBatchGather(m_id, keys.data(), keys.size(), reinterpret_cast<unsigned char*>(std::ranges::data(rows)),
                          m_valueLen, length == 0 ? nullptr : Detail::Address(defaultRow)));
    }
  }
  /* LookupOrInsert for each key; isFind[i] as kavo.h has it. Error::Done() says how far a call came that failed. */
  void BatchLookupOrInsert(std::span<const long> keys, std::span<unsigned char*> values, std::span<unsigned> isFind,
                           unsigned occurrences = 1) const {
    Detail::CheckLength(keys.size() == values.size() && keys.size() == isFind.size(),
                        "BatchLookupOrInsert: as many addresses and answers as keys");
    if (!keys.empty()) {
      unsigned long long done = 0;
      const int status =
          KavoBatchLookupOrInsert(m_id, keys.data(), keys.size(), values.data(), isFind.data(), occurrences, &done);
      Detail::Check("KavoBatchLookupOrInsert", m_id, status, done);
    }
  }
  /* InsertOrUpdate for each key; `rows` has ValueLen() bytes a key. Failures as above. */
  template <Elements R>
  void BatchInsertOrUpdate(std::span<const long> keys, const R& rows, unsigned count = 0) const {
    Detail::CheckLength(Detail::Bytes(rows) == keys.size() * m_valueLen, "BatchInsertOrUpdate: a row for each key");
    if (!keys.empty()) {
      unsigned long long done = 0;
      const int status =
          KavoBatchInsertOrUpdate(m_id, keys.data(), keys.size(), Detail::Address(rows), m_valueLen, count, &done);
      Detail::Check("KavoBatchInsertOrUpdate", m_id, status, done);
    }
  }

  /* THE WHOLE TABLE */

  void SetRehashMode(RehashMode mode) const {
    Detail::Check("KavoSetRehashMode", m_id, KavoSetRehashMode(m_id, static_cast<unsigned>(mode)));
  }
  /* Filter tables: the count at which a key is admitted. */
  void SetFilterFrequency(unsigned frequency) const {
    Detail::Check("KavoSetFilterFreq", m_id, KavoSetFilterFreq(m_id, frequency));
  }
  /* The number of entries, or of those with a value; found by a walk over the table. */
  std::size_t CountEntries(bool admittedOnly = false) const {
    unsigned long long size = 0;
    unsigned valueLen = 0;
    Detail::Check("KavoGetHtSizeAndVl", m_id, KavoGetHtSizeAndVl(m_id, &size, &valueLen, admittedOnly));
    return size;
  }
  KavoTableStats Stats() const {
    KavoTableStats stats{};
    stats.size = sizeof(stats);
    Detail::Check("KavoGetTableStats", m_id, KavoGetTableStats(m_id, &stats));
    return stats;
  }
  /* The entries that the mode takes, fetched `batch` (at least 1) at a time:
       for (const KavoHtBatchElement& entry : table.Export(kavo::ExportMode::ALL)) { ... table.At(entry.value) ... } */
  Entries Export(ExportMode mode, unsigned batch = 512) const { return Entries(m_id, mode, batch < 1 ? 1 : batch); }

  /* Values before keys: the number of prepared values, then the memory of each. */
  std::size_t PrepareValues() const {
    unsigned long long count = 0;
    Detail::Check("KavoPrepareMemForValues", m_id, KavoPrepareMemForValues(m_id, &count));
    return count;
  }
  template <Element T = unsigned char>
  Row<T> PreparedValue(std::size_t index) const {
    unsigned char* value;
    unsigned length = 0;
    Detail::Check("KavoGetMemForValue", m_id, KavoGetMemForValue(m_id, index, &value, &length));
    return Row<T>(value, length);
  }

 private:
  Table(unsigned id, unsigned valueLen, TableType type) : m_id(id), m_valueLen(valueLen), m_type(type), m_owned(true) {}

  using Finder = int (*)(unsigned, long, unsigned char**, unsigned*);

  // A call that succeeds has written the address; one that is null leaves the length at 0: an empty row.
  template <Element T>
  Row<T> Found(const char* function, Finder find, long key) const {
    unsigned char* value;
    unsigned length = 0;
    Detail::Check(function, m_id, find(m_id, key, &value, &length));
    return Row<T>(value, length);
  }
  template <Element T>
  std::optional<Row<T>> TryFound(const char* function, Finder find, long key) const {
    unsigned char* value;
    unsigned length = 0;
    const int status = find(m_id, key, &value, &length);
    // Of the reasons for this code only absence is left: the table is there and the key is one.
    if (status == KAVO_INVALID && key >= 0) {
      return std::nullopt;
    }
    Detail::Check(function, m_id, status);
    return Row<T>(value, length);
  }
  template <Elements R>
  int UpdateStatus(long key, const R& value) const {
    return KavoUpdate(m_id, key, Detail::Unconst(value), Detail::Length(Detail::Bytes(value)));
  }
  template <Elements R>
  int InsertStatus(long key, const R& value, unsigned count, NewState state) const {
    return KavoInsert(m_id, key, Detail::Unconst(value), Detail::Length(Detail::Bytes(value)), count,
                      static_cast<unsigned>(state));
  }
  bool Inserted(long key, bool otherwiseRight, int status) const {
    if (status == KAVO_INVALID && key >= 0 && otherwiseRight) {
      return false;
    }
    Detail::Check("KavoInsert", m_id, status);
    return true;
  }

  unsigned m_id;
  unsigned m_valueLen;
  TableType m_type;
  bool m_owned;
};

/* PARTITION MAP */

/* The process's partition map, installed as long as the object lives; there is one at a time. */
class PartitionMap {
 public:
  PartitionMap(unsigned partitionNum, std::span<const unsigned> psIds) {
    Detail::CheckWithoutTable("InitPartitionMap", InitPartitionMap(partitionNum, Detail::Length(psIds.size()),
                                                                   psIds.empty() ? nullptr : psIds.data()));
  }
  PartitionMap(const PartitionMap&) = delete;
  PartitionMap& operator=(const PartitionMap&) = delete;
  /* A failure to remove it is in the library's log. */
  ~PartitionMap() { static_cast<void>(UninitPartitionMap()); }

  /* The id of the server that owns a key. */
  unsigned Owner(unsigned long long key) const {
    unsigned psId = 0;
    Detail::CheckWithoutTable("QueryPartitionMapPsId", QueryPartitionMapPsId(key, &psId));
    return psId;
  }
  /* psIds[i] becomes the owner of keys[i]: one call and one lock for all of them, at most 4,294,967,295. */
  void Route(std::span<const unsigned long long> keys, std::span<unsigned> psIds) const {
    Detail::CheckLength(keys.size() == psIds.size() && keys.size() <= std::numeric_limits<unsigned>::max(),
                        "Route: as many owners as keys");
    if (!keys.empty()) {
      unsigned* array = psIds.data();
      Detail::CheckWithoutTable("GetBatchPsIds",
                                GetBatchPsIds(keys.data(), &array, static_cast<unsigned>(keys.size())));
    }
  }
};

/* LOG */

enum class LogLevel : int {
  DEBUG = KAVO_LOG_LEVEL_DEBUG,
  INFO = KAVO_LOG_LEVEL_INFO,
  WARN = KAVO_LOG_LEVEL_WARN,
  ERROR = KAVO_LOG_LEVEL_ERROR,
  EVENT = KAVO_LOG_LEVEL_EVENT,
};

/* A log line, for the length of the call that gets it. Formatted when it is asked for; allocates nothing. */
class LogLine {
 public:
  LogLine(LogLevel level, unsigned channel, const char* format, std::va_list arguments)
      : m_level(level), m_channel(channel), m_format(format) {
    va_copy(m_arguments, arguments);
  }
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;
  ~LogLine() { va_end(m_arguments); }

  LogLevel Level() const noexcept { return m_level; }
  unsigned Channel() const noexcept { return m_channel; }
  /* What the line is made from, as for printf: the cheaper thing to look at where most lines are dropped. */
  std::string_view Format() const noexcept { return m_format; }
  /* The whole line, line end included; of a longer one the first 1,023 bytes. */
  std::string_view Text() const noexcept {
    if (!m_formatted) {
      // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the constructor has copied it
      const int length = std::vsnprintf(m_text.data(), m_text.size(), m_format, m_arguments);
      m_length = length < 0 ? 0 : std::min(static_cast<std::size_t>(length), m_text.size() - 1);
      m_formatted = true;
    }
    return {m_text.data(), m_length};
  }

 private:
  const LogLevel m_level;
  const unsigned m_channel;
  const char* const m_format;
  mutable std::va_list m_arguments;
  mutable bool m_formatted = false;
  mutable std::size_t m_length = 0;
  mutable std::array<char, 1024> m_text;
};

/*
 * Sends the library's log lines to a callable, `write(line)`, as long as the object lives; then the default is back.
 * The library has one sink at a time: a second one replaces the first.
 *
 *   kavo::LogSink sink([](const kavo::LogLine& line) { std::fputs(line.Text().data(), stderr); });
 *
 * Debug, information and warning lines come from level `least` on; error and event lines always. The callable is called
 * on whatever thread has something to log, several at a time, at times with a lock of the library held: it must not
 * call into the library, and an exception from it ends the process.
 */
template <std::invocable<const LogLine&> Write>
class LogSink {
 public:
  explicit LogSink(Write write, LogLevel least = LogLevel::WARN) : m_write(std::move(write)), m_least(least) {
    const KavoLogSink sink{&Enabled, &WriteLine, this};
    Detail::CheckWithoutTable("KavoSetLogSink", KavoSetLogSink(&sink));
  }
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;
  /* No thread is inside the callable when this is over. */
  ~LogSink() { static_cast<void>(KavoSetLogSink(nullptr)); }

 private:
  static int Enabled(void* self, unsigned, int level) noexcept {
    return level >= static_cast<int>(static_cast<LogSink*>(self)->m_least) ? 1 : 0;
  }
  static void WriteLine(void* self, unsigned channel, int level, const char* format, std::va_list arguments) noexcept {
    const LogLine line(LogLevel{level}, channel, format, arguments);
    static_cast<LogSink*>(self)->m_write(line);
  }

  Write m_write;
  const LogLevel m_least;
};

/* KEYS
 *
 * The base takes a key's bucket from its low 32 bits as they are. MixKey spreads keys that are not spread already:
 * a one-to-one map of the numbers from 0 to 2^63 - 1 onto themselves, with UnmixKey its inverse, so no two keys become
 * one and the original need not be kept. The sign bit is not looked at. 0 stays 0.
 *
 * FROZEN: mixed keys stand in files. Neither the shifts nor the numbers ever change.
 *
 * Three exclusive-ors with the high bits and two multiplications, all modulo 2^63. Chosen by measuring how often each
 * output bit flips with each of the 63 input bits, which should be every second time, from 1,500 random choices of
 * shifts and odd numbers with three multiplications and a few known 64-bit mixers cut down to 63 bits. Over 16,777,216
 * keys drawn at random no rate differs from 1/2 by more than 0.00041. Over as many keys i, i << 20, i << 32,
 * i * 1000003, 2^63 - 1 - i, and 64 counters told apart by high bits, none differs by more than 0.00063, in the low 32
 * bits 0.00061. Those are the sampling errors of the largest of 3,969 rates (a standard deviation is 0.00012, and
 * 0.00017 where keys are each other's flips), and a third multiplication did not lower them. The low 12 and 20 bits,
 * the high ones, and (m >> 32) mod n for n = 3, 7, 64, 1000 and 1024 of 215 arithmetic progressions of 1,048,576 keys
 * fill their buckets as random numbers do: of 1,935 counts the worst is 3.8 standard deviations off.
 */
namespace Detail {

inline constexpr std::uint64_t KEY_BITS = ~std::uint64_t{0} >> 1;

constexpr std::uint64_t FoldHigh(std::uint64_t x, int shift) noexcept {
  return x ^ (x >> shift);
}
/* Undoes FoldHigh for shifts of at least 21, a third of the bits. */
constexpr std::uint64_t UnfoldHigh(std::uint64_t x, int shift) noexcept {
  return x ^ (x >> shift) ^ (x >> (2 * shift));
}
constexpr std::uint64_t TimesModulo(std::uint64_t x, std::uint64_t odd) noexcept {
  return (x * odd) & KEY_BITS;
}

}  // namespace Detail

constexpr long MixKey(long key) noexcept {
  std::uint64_t x = static_cast<std::uint64_t>(key) & Detail::KEY_BITS;
  x = Detail::TimesModulo(Detail::FoldHigh(x, 30), 0x3F58476D1CE4E5B9);
  x = Detail::TimesModulo(Detail::FoldHigh(x, 27), 0x14D049BB133111EB);
  return static_cast<long>(Detail::FoldHigh(x, 31));
}

/* UnmixKey(MixKey(key)) and MixKey(UnmixKey(key)) are `key`, from 0 on. The multipliers are the inverses of the above.
 */
constexpr long UnmixKey(long mixed) noexcept {
  std::uint64_t x = static_cast<std::uint64_t>(mixed) & Detail::KEY_BITS;
  x = Detail::TimesModulo(Detail::UnfoldHigh(x, 31), 0x319642B2D24D8EC3);
  x = Detail::TimesModulo(Detail::UnfoldHigh(x, 27), 0x16DE1B173F119089);
  return static_cast<long>(Detail::UnfoldHigh(x, 30));
}

}  // namespace kavo

#endif /* KAVO_HPP */
