#include "adapter/manager.h"

#include "adapter/table_types.h"

namespace Qen {

ManagerEle::ManagerEle(ManagerEle&& other) noexcept {
  *this = std::move(other);
}

ManagerEle& ManagerEle::operator=(ManagerEle&& other) noexcept {
  // Relaxed, on the source: moves happen under the registry's lock or on an element that one thread owns, and an empty
  // element carries nothing.
  const unsigned tableType = other.type.exchange(TABLE_TYPE_EMPTY, std::memory_order_relaxed);
  void* const table = other.handle.exchange(nullptr, std::memory_order_relaxed);
  // Release: pairs with Load. The type comes last, because it is what readers look at first.
  handle.store(table, std::memory_order_release);
  type.store(tableType, std::memory_order_release);
  return *this;
}

void ManagerEle::DeleHandle() noexcept {
  // Relaxed, here and below: whoever destroys a table is alone with it.
  void* const table = handle.load(std::memory_order_relaxed);
  if (table == nullptr) {
    return;
  }
  switch (type.load(std::memory_order_relaxed)) {
    case TABLE_TYPE_BASIC:
      HeapDelete(static_cast<BasicTable*>(table));
      break;
    case TABLE_TYPE_FILTER:
      HeapDelete(static_cast<FilterTable*>(table));
      break;
    default:
      break;
  }
  handle.store(nullptr, std::memory_order_relaxed);
  type.store(TABLE_TYPE_EMPTY, std::memory_order_relaxed);
}

// The initialiser makes the registry, so that its destructor runs when the library is unloaded.
Manager<int, ManagerEle>* const g_manager = &Manager<int, ManagerEle>::GetInstance();

}  // namespace Qen
