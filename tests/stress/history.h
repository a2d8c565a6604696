// What threads did to one key, and whether one order explains it.
//
// A key is a register that is absent at first and never becomes so again. A history is linearizable if its operations
// can be put in one order that keeps the order of those that did not overlap, and in which each of them fits what the
// ones before it left. A table is linearizable if the history of each of its keys is.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <set>
#include <utility>
#include <vector>

namespace KavoTest {

struct Operation {
  enum class Kind {
    CREATE,   // made the key, with `value`
    PUT,      // made it or overwrote it, whichever was due
    WRITE,    // overwrote it
    READ,     // found it, with `value`
    REFUSED,  // did not make it, because it was present
    ABSENT    // did not find it
  };
  Kind kind;
  std::uint64_t value;
  // Stamps of one clock that gives no stamp twice.
  std::uint64_t invoked;
  std::uint64_t responded;
};

using History = std::vector<Operation>;

class Linearization {
 public:
  static bool Exists(const History& history) {
    Linearization search(history);
    return search.Extend(std::vector<bool>(history.size(), false), std::nullopt);
  }

 private:
  using State = std::optional<std::uint64_t>;

  explicit Linearization(const History& history) : m_history(history) {}

  static bool Changes(const Operation& operation) { return operation.kind <= Operation::Kind::WRITE; }

  static bool Fits(const Operation& operation, const State& state) {
    switch (operation.kind) {
      case Operation::Kind::CREATE:
      case Operation::Kind::ABSENT:
        return !state;
      case Operation::Kind::PUT:
        return true;
      case Operation::Kind::READ:
        return state == operation.value;
      default:
        return state.has_value();
    }
  }

  // The first response among the operations that are left: what was invoked later cannot come next.
  std::uint64_t FirstResponse(const std::vector<bool>& placed) const {
    std::uint64_t first = UINT64_MAX;
    for (std::size_t i = 0; i < placed.size(); ++i) {
      first = placed[i] ? first : std::min(first, m_history[i].responded);
    }
    return first;
  }

  // Can the order that placed these operations, and led to this state, be completed?
  bool Extend(std::vector<bool> placed, const State& state) {
    std::uint64_t first = 0;
    for (bool any = true; any;) {
      any = false;
      first = FirstResponse(placed);
      // What changes nothing and can come next may as well do so now.
      for (std::size_t i = 0; i < placed.size(); ++i) {
        const Operation& operation = m_history[i];
        if (!placed[i] && operation.invoked < first && !Changes(operation) && Fits(operation, state)) {
          placed[i] = any = true;
        }
      }
    }
    if (first == UINT64_MAX) {
      return true;
    }
    if (!m_deadEnds.emplace(placed, state).second) {
      return false;
    }
    for (std::size_t i = 0; i < placed.size(); ++i) {
      const Operation& operation = m_history[i];
      if (!placed[i] && operation.invoked < first && Changes(operation) && Fits(operation, state)) {
        placed[i] = true;
        if (Extend(placed, operation.value)) {
          return true;
        }
        placed[i] = false;
      }
    }
    return false;
  }

  const History& m_history;
  std::set<std::pair<std::vector<bool>, State>> m_deadEnds;  // or being tried
};

inline std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  static constexpr const char* NAMES[] = {"create", "put", "write", "read", "refused", "absent"};
  return out << operation.invoked << " to " << operation.responded << ": "
             << NAMES[static_cast<std::size_t>(operation.kind)] << ' ' << operation.value;
}

}  // namespace KavoTest
