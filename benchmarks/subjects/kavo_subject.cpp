// Kavo through the exported functions of the shared library.
#include <kavo.hpp>
#include <span>

#include "subjects/make_entry.h"
#include "value.h"

namespace Bench {
namespace {

// The table ids of all benchmarks are below 1024, where a table is found with one array access.
constexpr unsigned KAVO_TABLE_ID = 7;

template <kavo::RehashMode MODE>
class KavoSubject {
 public:
  static constexpr const char* NAME = MODE == kavo::RehashMode::GRADUAL ? "Kavo gradual" : "Kavo whole";
  static constexpr bool GROWS = true;

  explicit KavoSubject(std::uint64_t expected) : m_table(KAVO_TABLE_ID, static_cast<unsigned>(expected), VALUE_BYTES) {
    m_table.SetRehashMode(MODE);
  }

  bool Insert(long key, const Value& value) {
    return m_table.TryInsert(key, value.numbers, 0, kavo::NewState::FULL_ONLY);
  }

  bool Find(long key, std::uint64_t& sum) const {
    const auto value = m_table.TryLookup(key);
    if (!value) {
      return false;
    }
    sum += FirstWord(value->data());
    return true;
  }

  bool Train(long key, const Value& gradient) {
    const auto [value, created] = m_table.LookupOrInsert(key, 0);
    AddShared(value.data(), gradient);
    return created;
  }

  void InsertBatch(const long* keys, std::uint64_t num, const Value* rows) {
    m_table.BatchInsertOrUpdate({keys, num}, std::span(rows, num));
  }

  std::uint64_t FindBatch(const long* keys, std::uint64_t num, std::uint64_t& sum) const {
    unsigned char* values[BATCH_KEYS];
    const std::uint64_t found = m_table.BatchLookup({keys, num}, {values, num});
    for (std::uint64_t i = 0; i < num; ++i) {
      if (values[i] != nullptr) {
        sum += FirstWord(values[i]);
      }
    }
    return found;
  }

  // Rows of absent keys are zeroed.
  void CopyBatch(const long* keys, std::uint64_t num, Value* rows) const {
    m_table.BatchGather({keys, num}, std::span(rows, num));
  }

  std::uint64_t TrainBatch(const long* keys, std::uint64_t num, const Value& gradient) {
    unsigned char* values[BATCH_KEYS];
    unsigned isFind[BATCH_KEYS];
    m_table.BatchLookupOrInsert({keys, num}, {values, num}, {isFind, num}, 0);
    std::uint64_t created = 0;
    for (std::uint64_t i = 0; i < num; ++i) {
      AddShared(values[i], gradient);
      created += isFind[i] == 0;
    }
    return created;
  }

  template <class Visit>
  void ForEach(const Visit& visit) {
    for (const KavoHtBatchElement& entry : m_table.Export(kavo::ExportMode::ALL, 1024)) {
      visit(entry.key, entry.value);
    }
  }

 private:
  kavo::Table m_table;
};

}  // namespace

SubjectEntry KavoWholeEntry() {
  return MakeEntry<KavoSubject<kavo::RehashMode::WHOLE_TABLE>>({Fill::GROWN, Fill::SIZED, Fill::SIZED_FIND_OR_INSERT});
}

SubjectEntry KavoGradualEntry() {
  return MakeEntry<KavoSubject<kavo::RehashMode::GRADUAL>>({Fill::GROWN});
}

}  // namespace Bench
