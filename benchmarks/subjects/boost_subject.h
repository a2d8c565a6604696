// Boost's concurrent_flat_map, where the installed headers have it (Boost 1.83 and later).
#pragma once

#if __has_include(<boost/unordered/concurrent_flat_map.hpp>)
#define BENCH_HAS_BOOST_MAP 1

#include <boost/unordered/concurrent_flat_map.hpp>
#include <cstdint>

#include "value.h"

namespace Bench {

class BoostSubject {
 public:
  static constexpr const char* NAME = "Boost flat";
  static constexpr bool GROWS = true;

  explicit BoostSubject(std::uint64_t expected) : m_map(expected) {}

  bool Insert(long key, const Value& value) { return m_map.emplace(key, value); }

  bool Find(long key, std::uint64_t& sum) const {
    return m_map.cvisit(key, [&sum](const auto& entry) { sum += FirstWord(entry.second); }) != 0;
  }

  bool Copy(long key, Value& row) const {
    return m_map.cvisit(key, [&row](const auto& entry) { row = entry.second; }) != 0;
  }

  // True when the key was new.
  bool Train(long key, const Value& gradient) {
    return m_map.emplace_or_visit(key, gradient, [&gradient](auto& entry) { Add(entry.second, gradient); });
  }

  template <class Visit>
  void ForEach(const Visit& visit) {
    m_map.cvisit_all(
        [&visit](const auto& entry) { visit(entry.first, reinterpret_cast<const unsigned char*>(&entry.second)); });
  }

 private:
  boost::concurrent_flat_map<long, Value> m_map;
};

}  // namespace Bench

#else
#define BENCH_HAS_BOOST_MAP 0
#endif
