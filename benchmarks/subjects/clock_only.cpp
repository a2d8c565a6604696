#include "growth_latency.h"
#include "subject_entry.h"

namespace Bench {
namespace {

class NoTable {
 public:
  explicit NoTable(std::uint64_t) {}
  bool Insert(long, const Value&) { return true; }
  bool Find(long key, std::uint64_t& sum) const {
    sum += static_cast<std::uint64_t>(key);
    return true;
  }
};

}  // namespace

SubjectEntry ClockOnly() {
  return {"no table",
          nullptr,
          [](std::uint64_t entries) { return MeasureGrowth<NoTable>(entries, entries / 1000); },
          {},
          nullptr};
}

}  // namespace Bench
