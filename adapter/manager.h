// The table registry: from a caller's table id to the table that serves it. One object a process, made when the
// library is loaded and destroyed, with every table still in it, when it is unloaded.
//
// Contract
//  - Ids below ELE_ARRAY_SIZE, and as many of the highest, index arrays and are resolved without a lock: the path of
//    every lookup. (The highest are those that a library above this one takes for tables of its own.) All others live
//    in a hash map and are resolved under the lock, shared, which is held for that step only.
//  - Register and Take hold the lock exclusively, and only while they move an element: tables are built before and
//    destroyed after it, so that neither makes other calls wait.
//  - The caller of the library sees to it that a table is not taken while another call on its id runs. So a table that
//    was resolved may be used without a lock.
//
// An element is empty, or registered with a table:
//
//   empty       type 2, handle null      Register  -> registered
//   registered  type 0 or 1, handle set  Take      -> empty; the table passes to the caller
#pragma once

#include <functional>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#include "platform/allocation.h"
#include "platform/atomic.h"
#include "platform/mutex.h"

namespace Qen {

inline constexpr unsigned TABLE_TYPE_BASIC = 0;
inline constexpr unsigned TABLE_TYPE_FILTER = 1;
inline constexpr unsigned TABLE_TYPE_EMPTY = 2;

// What an id resolves to. `table` is a table object of the class that `type` names.
struct TableRef {
  unsigned type;
  void* table;
};

// One element. It owns its table; the pointer is untyped because the kinds have no common base class.
// Aligned so that a lookup touches one cache line of it.
class alignas(2 * sizeof(void*)) ManagerEle {
 public:
  ManagerEle() noexcept = default;
  ManagerEle(unsigned tableType, void* table) noexcept : type(tableType), handle(table) {}
  // Moves leave the source empty.
  ManagerEle(ManagerEle&& other) noexcept;
  // Drops what the destination held without destroying it; callers see to it that the destination is empty.
  ManagerEle& operator=(ManagerEle&& other) noexcept;
  ~ManagerEle() { DeleHandle(); }

  // Destroys the table, if there is one, and leaves the element empty.
  void DeleHandle() noexcept;

  TableRef Load() const noexcept {
    // Acquire, on both: pairs with the stores of a registration, so that an id which reads as registered comes with
    // its table fully built.
    const unsigned tableType = type.load(std::memory_order_acquire);
    return {tableType, handle.load(std::memory_order_acquire)};
  }

  // Written under the registry's lock, read without it.
  Atomic<unsigned> type{TABLE_TYPE_EMPTY};
  Atomic<void*> handle{nullptr};
};

template <class TableId, class Ele>
class Manager {
 public:
  static constexpr unsigned ELE_ARRAY_SIZE = 1024;

  static Manager& GetInstance() {
    static Manager manager;
    return manager;
  }

  // The id's element, or the shared empty one; never null. For ids of the map the caller holds `m_lock`.
  Ele* GetManagerEle(TableId tableId) {
    const auto id = static_cast<unsigned>(tableId);
    if (Ele* const ele = InArray(id)) {
      return ele;
    }
    const auto found = m_eleMap.find(id);
    return found == m_eleMap.end() ? &m_emptyEle : &found->second;
  }

  // The id's table. Inlined for ids of the array, the path of every lookup.
  TableRef Resolve(TableId tableId) {
    const auto id = static_cast<unsigned>(tableId);
    if (id < ELE_ARRAY_SIZE) [[likely]] {
      return m_eleArray[id].Load();
    }
    return ~id < ELE_ARRAY_SIZE ? m_topArray[~id].Load() : ResolveInMap(tableId);
  }

  // Moves `ele` in. False, with `ele` untouched, when the id is registered already. Throws std::bad_alloc, and then
  // changes nothing.
  bool Register(TableId tableId, Ele& ele) {
    const auto id = static_cast<unsigned>(tableId);
    const std::lock_guard lock(m_lock);
    Ele* const inArray = InArray(id);
    Ele& destination = inArray != nullptr ? *inArray : m_eleMap.try_emplace(id).first->second;
    if (destination.Load().type != TABLE_TYPE_EMPTY) {
      return false;
    }
    destination = std::move(ele);
    return true;
  }

  // Moves the id's element out; empty when there was none.
  Ele Take(TableId tableId) {
    const auto id = static_cast<unsigned>(tableId);
    const std::lock_guard lock(m_lock);
    if (Ele* const ele = InArray(id)) {
      return std::move(*ele);
    }
    const auto found = m_eleMap.find(id);
    if (found == m_eleMap.end()) {
      return Ele();
    }
    Ele taken = std::move(found->second);
    m_eleMap.erase(found);
    return taken;
  }

  // Destroyed from the last to the first: the tables of the map before those of the arrays.
  SharedMutex m_lock;
  Ele m_eleArray[ELE_ARRAY_SIZE];
  Ele m_topArray[ELE_ARRAY_SIZE];  // from id 4,294,967,295 downwards
  std::unordered_map<unsigned, Ele, std::hash<unsigned>, std::equal_to<unsigned>,
                     HeapAllocator<std::pair<const unsigned, Ele>>>
      m_eleMap;
  Ele m_emptyEle;  // never written

 private:
  Manager() = default;

  // Null for an id of the map.
  Ele* InArray(unsigned id) noexcept {
    return id < ELE_ARRAY_SIZE ? &m_eleArray[id] : ~id < ELE_ARRAY_SIZE ? &m_topArray[~id] : nullptr;
  }

  [[gnu::noinline]] TableRef ResolveInMap(TableId tableId) {
    const std::shared_lock lock(m_lock);
    return GetManagerEle(tableId)->Load();
  }
};

// The registry of the process. Set before any exported function can be called.
extern Manager<int, ManagerEle>* const g_manager;

}  // namespace Qen
