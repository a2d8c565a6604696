#include <atomic>
#include <cstring>

#include "growth_latency.h"
#include "huge_range.h"
#include "kavo_layout.h"
#include "subject_entry.h"

namespace Bench {
namespace {

constexpr std::uint64_t GROWTH = 1000;

class BareMemory {
 public:
  explicit BareMemory(std::uint64_t firstEntries)
      : m_memory(GROWTH * firstEntries * GROWN_ENTRY_BYTES + GROWN_ENTRY_BYTES) {}
  bool Insert(long key, const Value& /* value */) {
    const std::uint64_t used = m_used.load(std::memory_order_relaxed);  // the only writer
    std::memset(m_memory.Data() + used, static_cast<int>(key | 1), GROWN_ENTRY_BYTES);
    m_used.store(used + GROWN_ENTRY_BYTES, std::memory_order_release);  // whoever reads the number may read the bytes
    return true;
  }
  bool Find(long key, std::uint64_t& sum) const {
    const std::uint64_t used = m_used.load(std::memory_order_acquire);
    sum += m_memory.Data()[static_cast<std::uint64_t>(key) % used];
    return true;
  }

 private:
  HugeRange m_memory;
  std::atomic<std::uint64_t> m_used{0};
};

}  // namespace

SubjectEntry BareMemoryEntry() {
  return {"bare memory",
          nullptr,
          [](std::uint64_t entries) { return MeasureGrowth<BareMemory>(entries, entries / GROWTH); },
          {},
          nullptr};
}

}  // namespace Bench
