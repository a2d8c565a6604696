// libcuckoo's cuckoohash_map as a user would write it: functions run on an entry while its buckets are locked.
#include <algorithm>
#include <cstdint>
#include <libcuckoo/cuckoohash_map.hh>

#include "subjects/make_entry.h"
#include "value.h"

namespace Bench {
namespace {

class CuckooSubject {
 public:
  static constexpr const char* NAME = "libcuckoo";
  static constexpr bool GROWS = true;

  // Never for fewer than SAFE_ENTRIES: see there.
  explicit CuckooSubject(std::uint64_t expected) : m_map(std::max(expected, SAFE_ENTRIES)) {}

  bool Insert(long key, const Value& value) { return m_map.insert(key, value); }

  bool Find(long key, std::uint64_t& sum) const {
    return m_map.find_fn(key, [&sum](const Value& value) { sum += FirstWord(value); });
  }

  bool Copy(long key, Value& row) const { return m_map.find(key, row); }

  // True when the key was new.
  bool Train(long key, const Value& gradient) {
    return m_map.upsert(
        key, [&gradient](Value& value) { Add(value, gradient); }, gradient);
  }

  template <class Visit>
  void ForEach(const Visit& visit) {
    const auto locked = m_map.lock_table();
    for (const auto& [key, value] : locked) {
      visit(key, reinterpret_cast<const unsigned char*>(&value));
    }
  }

 private:
  // A table for at least so many entries has all the locks that it will ever have. Below that its locks grow with it,
  // and version 0.3.1 then reads through a null pointer now and then: for a moment of each doubling it shows an older
  // size, and a thread that was held up since that older size, with the locks of that time, takes it for the present.
  static constexpr std::uint64_t SAFE_ENTRIES = std::uint64_t{4} << 16U;

  libcuckoo::cuckoohash_map<long, Value> m_map;
};

}  // namespace

SubjectEntry CuckooEntry() {
  return MakeEntry<CuckooSubject>({Fill::GROWN, Fill::SIZED});
}

}  // namespace Bench
