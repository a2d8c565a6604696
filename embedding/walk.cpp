// The walk over all keys that have rows.
#include <array>

#include "embedding/embedding.h"
#include "embedding/row.h"

namespace Qen {

// What a host holds is a number that is never given out again, as with the base's cursors.
std::size_t Embedding::NextKeys(void*& cursor, std::span<long> keys) {
  TableWalk* walk = nullptr;
  {
    const std::lock_guard lock(m_walksMutex);
    if (cursor == nullptr) {
      walk = &m_walks.try_emplace(++m_lastWalk, *m_tables).first->second;
      cursor = reinterpret_cast<void*>(m_lastWalk);  // NOLINT(performance-no-int-to-ptr): a name, not an address
    } else {
      const auto found = m_walks.find(reinterpret_cast<std::uintptr_t>(cursor));
      if (found == m_walks.end()) {
        throw Failure(KAVO_INVALID, "*cursor is no walk of this embedding");
      }
      walk = &found->second;
    }
  }
  const auto end = [&] {
    const std::lock_guard lock(m_walksMutex);
    m_walks.erase(reinterpret_cast<std::uintptr_t>(cursor));
    cursor = nullptr;
  };
  std::array<KavoHtBatchElement, 256> elements;
  std::size_t num = 0;
  try {
    while (num < keys.size()) {
      Tag sign = 0;
      const std::span wanted(elements.data(), std::min(elements.size(), keys.size() - num));
      const std::size_t given = walk->Next(wanted, sign);
      if (given == 0) {
        end();
        break;
      }
      for (const KavoHtBatchElement& element : wanted.first(given)) {
        if (element.value != nullptr && HasRowNow(element.value)) {
          keys[num++] = KeyOf(static_cast<Tag>(element.key) | sign);
        }
      }
    }
  } catch (...) {
    end();
    throw;
  }
  return num;
}

}  // namespace Qen
