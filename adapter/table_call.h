// The steps that exported functions share on their way from a table id to a call on the table object.
#pragma once

#include "adapter/manager.h"
#include "adapter/table_types.h"
#include "kavo.h"
#include "platform/log.h"

// Declares `ref`, the table of an id. An id that is not in use ends the exported function, with a line under its name.
#define KAVO_RESOLVE(ref, tableId)                                                              \
  const ::Qen::TableRef ref = ::Qen::g_manager->Resolve(static_cast<int>(tableId));             \
  if (ref.type == ::Qen::TABLE_TYPE_EMPTY) {                                                    \
    KAVO_LOG_ERROR(::Qen::TABLE_LOG_UNIT, "tableId[%d] is nullptr", static_cast<int>(tableId)); \
    return KAVO_INVALID;                                                                        \
  }                                                                                             \
  static_assert(true, "a semicolon follows")

namespace Qen {

// The status of `call` on the table object, which gets it as its class: not virtual, so that calls on it are inlined.
template <class Call>
int OnTable(const TableRef& ref, Call call) {
  switch (ref.type) {
    [[likely]] case TABLE_TYPE_BASIC : return call(*static_cast<const BasicTable*>(ref.table));
    case TABLE_TYPE_FILTER:
      return call(*static_cast<const FilterTable*>(ref.table));
    default:
      return KAVO_UNSUPPORTED;
  }
}

}  // namespace Qen
