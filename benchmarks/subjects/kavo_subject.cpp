// Kavo through the exported functions of the shared library.
#include <kavo.h>

#include <cstdint>

#include "check.h"
#include "subjects/make_entry.h"
#include "value.h"

namespace Bench {
namespace {

// The table ids of all benchmarks are below 1024, where a table is found with one array access.
constexpr unsigned KAVO_TABLE_ID = 7;

template <unsigned MODE>
class KavoSubject {
 public:
  static constexpr const char* NAME = MODE == KAVO_REHASH_GRADUAL ? "Kavo gradual" : "Kavo whole";
  static constexpr bool GROWS = true;

  explicit KavoSubject(std::uint64_t expected) {
    Check(KavoInitHashTable(KAVO_TABLE_ID, static_cast<unsigned>(expected), VALUE_BYTES, KAVO_TABLE_TYPE_BASIC) ==
              KAVO_SUCCESS,
          "KavoInitHashTable");
    Check(KavoSetRehashMode(KAVO_TABLE_ID, MODE) == KAVO_SUCCESS, "KavoSetRehashMode");
  }
  KavoSubject(const KavoSubject&) = delete;
  KavoSubject& operator=(const KavoSubject&) = delete;
  ~KavoSubject() { Check(KavoUninitHashTable(KAVO_TABLE_ID) == KAVO_SUCCESS, "KavoUninitHashTable"); }

  bool Insert(long key, const Value& value) {
    return KavoInsert(KAVO_TABLE_ID, key, const_cast<unsigned char*>(Bytes(value)), VALUE_BYTES, 0, 0) == KAVO_SUCCESS;
  }

  bool Find(long key, std::uint64_t& sum) const {
    unsigned char* value = nullptr;
    unsigned length = 0;
    if (KavoLookup(KAVO_TABLE_ID, key, &value, &length) != KAVO_SUCCESS) {
      return false;
    }
    sum += FirstWord(value);
    return true;
  }

  bool Train(long key, const Value& gradient) {
    unsigned char* value = nullptr;
    unsigned length = 0;
    unsigned isFind = 0;
    Check(KavoLookupOrInsert(KAVO_TABLE_ID, key, &value, &length, &isFind, 0) == KAVO_SUCCESS, "KavoLookupOrInsert");
    AddShared(value, gradient);
    return isFind == 0;
  }

  void InsertBatch(const long* keys, std::uint64_t num, const Value* rows) {
    unsigned long long done = 0;
    Check(KavoBatchInsertOrUpdate(KAVO_TABLE_ID, keys, num, Bytes(*rows), VALUE_BYTES, 0, &done) == KAVO_SUCCESS &&
              done == num,
          "KavoBatchInsertOrUpdate");
  }

  std::uint64_t FindBatch(const long* keys, std::uint64_t num, std::uint64_t& sum) const {
    unsigned char* values[BATCH_KEYS];
    unsigned long long found = 0;
    Check(KavoBatchLookup(KAVO_TABLE_ID, keys, num, values, &found) == KAVO_SUCCESS, "KavoBatchLookup");
    for (std::uint64_t i = 0; i < num; ++i) {
      if (values[i] != nullptr) {
        sum += FirstWord(values[i]);
      }
    }
    return found;
  }

  // Rows of absent keys are zeroed.
  void CopyBatch(const long* keys, std::uint64_t num, Value* rows) const {
    Check(KavoBatchGather(KAVO_TABLE_ID, keys, num, reinterpret_cast<unsigned char*>(rows), VALUE_BYTES, nullptr) ==
              KAVO_SUCCESS,
          "KavoBatchGather");
  }

  std::uint64_t TrainBatch(const long* keys, std::uint64_t num, const Value& gradient) {
    unsigned char* values[BATCH_KEYS];
    unsigned isFind[BATCH_KEYS];
    unsigned long long done = 0;
    Check(KavoBatchLookupOrInsert(KAVO_TABLE_ID, keys, num, values, isFind, 0, &done) == KAVO_SUCCESS && done == num,
          "KavoBatchLookupOrInsert");
    std::uint64_t created = 0;
    for (std::uint64_t i = 0; i < num; ++i) {
      AddShared(values[i], gradient);
      created += isFind[i] == 0;
    }
    return created;
  }

  // Leaves out the entry that a full batch and the next one have in common.
  template <class Visit>
  void ForEach(const Visit& visit) {
    KavoHtBatchElement elements[1024];
    KavoHtBatchInfo batch = {elements, 1024, KAVO_EXPORT_ALL, 0};
    void* iter = nullptr;
    long last = -1;
    do {
      unsigned num = 0;
      Check(KavoBatchGetNext(KAVO_TABLE_ID, &batch, &num, &iter) == KAVO_SUCCESS, "KavoBatchGetNext");
      for (unsigned i = num > 0 && elements[0].key == last ? 1 : 0; i < num; ++i) {
        visit(elements[i].key, elements[i].value);
      }
      if (num > 0) {
        last = elements[num - 1].key;
      }
    } while (iter != nullptr);
  }

 private:
  static const unsigned char* Bytes(const Value& value) { return reinterpret_cast<const unsigned char*>(&value); }
};

}  // namespace

SubjectEntry KavoWholeEntry() {
  return MakeEntry<KavoSubject<KAVO_REHASH_WHOLE_TABLE>>({Fill::GROWN, Fill::SIZED, Fill::SIZED_FIND_OR_INSERT});
}

SubjectEntry KavoGradualEntry() {
  return MakeEntry<KavoSubject<KAVO_REHASH_GRADUAL>>({Fill::GROWN});
}

}  // namespace Bench
