#include <cstring>

#include "growth_latency.h"
#include "huge_range.h"
#include "subject_entry.h"

namespace Bench {
namespace {

constexpr std::uint64_t GROWTH = 1000;
// What an entry of a grown table weighs, in words.
constexpr std::uint64_t ENTRY_BYTES = 104;

class BareMemory {
 public:
  explicit BareMemory(std::uint64_t firstEntries) : m_memory(GROWTH * firstEntries * ENTRY_BYTES + ENTRY_BYTES) {}
  bool Insert(long key, const Value& /* value */) {
    std::memset(Next(), static_cast<int>(key | 1), ENTRY_BYTES);
    // Release: whoever reads the number may read the bytes.
    m_used.store(m_used.load(std::memory_order_relaxed) + ENTRY_BYTES, std::memory_order_release);
    return true;
  }
  bool Find(long key, std::uint64_t& sum) const {
    const std::uint64_t used = m_used.load(std::memory_order_acquire);
    sum += m_memory.Data()[static_cast<std::uint64_t>(key) % used];
    return true;
  }

 private:
  unsigned char* Next() const { return m_memory.Data() + m_used.load(std::memory_order_relaxed); }  // the only writer

  HugeRange m_memory;
  std::atomic<std::uint64_t> m_used{0};
};

}  // namespace

SubjectEntry BareMemoryOnly() {
  return {"bare memory",
          nullptr,
          [](std::uint64_t entries) { return MeasureGrowth<BareMemory>(entries, entries / GROWTH); },
          {},
          nullptr};
}

}  // namespace Bench
