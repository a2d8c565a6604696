#include "memory/thread_index.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <functional>
#include <unordered_map>
#include <utility>

#include "memory/pool_serial.h"
#include "platform/allocation.h"

namespace Qen {
namespace {

constexpr unsigned ARRAY_IDS = 1024;
constexpr std::size_t FIRST_PRUNING = 64;

// Trivially destructible, so they answer whatever else of the thread is gone; zero, so they cost no image space.
constinit thread_local ThreadIndex g_threadIndexArr[ARRAY_IDS]{};
constinit thread_local bool g_threadIndexMapGone = false;

class ThreadIndexMap {
 public:
  ThreadIndexMap() = default;
  ~ThreadIndexMap() { g_threadIndexMapGone = true; }
  ThreadIndexMap(const ThreadIndexMap&) = delete;
  ThreadIndexMap& operator=(const ThreadIndexMap&) = delete;

  ThreadIndex& At(int id) {
    if (const auto found = m_map.find(id); found != m_map.end()) {
      return found->second;
    }
    if (m_map.size() >= m_pruneAt) {
      std::erase_if(m_map, [](const auto& entry) { return !PoolSerial::IsLive(entry.second.serial); });
      m_pruneAt = std::max(FIRST_PRUNING, 2 * m_map.size());
    }
    return m_map[id];
  }

 private:
  std::unordered_map<int, ThreadIndex, std::hash<int>, std::equal_to<int>,
                     HeapAllocator<std::pair<const int, ThreadIndex>>>
      m_map;
  std::size_t m_pruneAt = FIRST_PRUNING;
};

thread_local ThreadIndexMap g_threadIndexMap;

}  // namespace

ThreadIndex* FindThreadIndex(int id) noexcept {
  if (static_cast<unsigned>(id) < ARRAY_IDS) {
    return &g_threadIndexArr[id];
  }
  if (g_threadIndexMapGone) {
    return nullptr;
  }
  try {
    return &g_threadIndexMap.At(id);
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace Qen
