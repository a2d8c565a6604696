// The walk over all keys that have rows: the base's cursors, one table after the other.
#include "embedding/embedding.h"
#include "embedding/row.h"

namespace Qen {

// What a host holds is a number that is never given out again, as with the base's cursors.
std::size_t Embedding::NextKeys(void*& cursor, std::span<long> keys) {
  KeyWalk* walk = nullptr;
  {
    const std::lock_guard lock(m_walksMutex);
    if (cursor == nullptr) {
      walk = &m_walks[++m_lastWalk];
      cursor = reinterpret_cast<void*>(m_lastWalk);  // NOLINT(performance-no-int-to-ptr): a name, not an address
    } else {
      const auto found = m_walks.find(reinterpret_cast<std::uintptr_t>(cursor));
      if (found == m_walks.end()) {
        throw Failure(KAVO_INVALID, "*cursor is no walk of this embedding");
      }
      walk = &found->second;
    }
  }
  std::size_t num = 0;
  while (num < keys.size()) {
    if (walk->next == walk->filled) {
      if (walk->baseCursor == nullptr && walk->begun && ++walk->table == m_tables->Num()) {
        break;
      }
      walk->begun = true;
      const KavoHtBatchElement last = walk->filled == 0 ? KavoHtBatchElement{} : walk->elements[walk->filled - 1];
      KavoHtBatchInfo info{walk->elements.data(), static_cast<unsigned>(walk->elements.size()), KAVO_EXPORT_ALL, 0};
      const bool repeats = walk->baseCursor != nullptr;  // the last entry of a full batch comes again
      walk->next = 0;
      walk->filled = 0;
      CheckBase(KavoBatchGetNext(m_tables->Id(walk->table), &info, &walk->filled, &walk->baseCursor),
                "KavoBatchGetNext");
      walk->next = repeats && walk->filled != 0 && walk->elements[0].key == last.key ? 1 : 0;
      continue;
    }
    const KavoHtBatchElement& element = walk->elements[walk->next++];
    if (element.value != nullptr && HasRowNow(element.value)) {
      keys[num++] = KeyOf(static_cast<Tag>(element.key) | (walk->table == 0 ? 0 : SIGN));
    }
  }
  if (num < keys.size()) {
    const std::lock_guard lock(m_walksMutex);
    m_walks.erase(reinterpret_cast<std::uintptr_t>(cursor));
    cursor = nullptr;
  }
  return num;
}

}  // namespace Qen
