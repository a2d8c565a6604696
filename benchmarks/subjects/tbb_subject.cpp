// oneTBB's concurrent_hash_map as a user would write it: an accessor locks the entry that it stands on.
#include <oneapi/tbb/concurrent_hash_map.h>

#include <cstdint>
#include <utility>

#include "subjects/make_entry.h"
#include "value.h"

namespace Bench {
namespace {

class TbbSubject {
 public:
  static constexpr const char* NAME = "oneTBB";
  static constexpr bool GROWS = true;

  explicit TbbSubject(std::uint64_t expected) : m_map(expected) {}

  bool Insert(long key, const Value& value) { return m_map.insert(std::make_pair(key, value)); }

  bool Find(long key, std::uint64_t& sum) const {
    Map::const_accessor entry;
    if (!m_map.find(entry, key)) {
      return false;
    }
    sum += FirstWord(entry->second);
    return true;
  }

  bool Copy(long key, Value& row) const {
    Map::const_accessor entry;
    if (!m_map.find(entry, key)) {
      return false;
    }
    row = entry->second;
    return true;
  }

  // True when the key was new.
  bool Train(long key, const Value& gradient) {
    Map::accessor entry;
    const bool created = m_map.insert(entry, key);
    Add(entry->second, gradient);
    return created;
  }

  template <class Visit>
  void ForEach(const Visit& visit) {
    for (const auto& [key, value] : m_map) {
      visit(key, reinterpret_cast<const unsigned char*>(&value));
    }
  }

 private:
  using Map = oneapi::tbb::concurrent_hash_map<long, Value>;

  Map m_map;
};

}  // namespace

SubjectEntry TbbEntry() {
  return MakeEntry<TbbSubject>({Fill::GROWN, Fill::SIZED});
}

}  // namespace Bench
