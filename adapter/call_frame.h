// The frame of the exported functions: refuse bad arguments, resolve the table, serve the call, log a failure, let no
// exception out. Macros, because each log line carries the name of the function in which its statement stands; on the
// success path they cost what the same code written out would.
//
//   int KavoX(unsigned int tableId, ...) {
//     KAVO_REFUSE_IF(bad argument, "KavoX failed, ...");
//     const auto x = [&](const auto& table) { return a status; };
//     KAVO_SERVE(tableId, x, "KavoX failed, ret[%d]");
//   }
//
// Functions that are not on one table, or have rules of their own, use the parts.
#pragma once

#include <exception>
#include <new>
#include <system_error>

#include "adapter/manager.h"
#include "adapter/table_types.h"
#include "hash/log_unit.h"
#include "kavo.h"

#define KAVO_REFUSE_IF_IN(unit, condition, message, ...)      \
  if (condition) {                                            \
    KAVO_LOG_ERROR(unit, message __VA_OPT__(, ) __VA_ARGS__); \
    return KAVO_INVALID;                                      \
  }                                                           \
  static_assert(true, "a semicolon follows")
#define KAVO_REFUSE_IF(condition, message, ...) \
  KAVO_REFUSE_IF_IN(::Qen::TABLE_LOG_UNIT, condition, message __VA_OPT__(, ) __VA_ARGS__)

// Returns `status`. The message of a failure begins with its number.
#define KAVO_ANSWER(status, message, ...)                                                  \
  const int kavoStatus = (status);                                                         \
  if (kavoStatus != KAVO_SUCCESS) {                                                        \
    KAVO_LOG_ERROR(::Qen::TABLE_LOG_UNIT, message, kavoStatus __VA_OPT__(, ) __VA_ARGS__); \
  }                                                                                        \
  return kavoStatus

// Declares `ref`, the table of an id. An id that is not in use ends the call.
#define KAVO_RESOLVE(ref, tableId)                                                  \
  const ::Qen::TableRef ref = ::Qen::g_manager->Resolve(static_cast<int>(tableId)); \
  KAVO_REFUSE_IF((ref).type == ::Qen::TABLE_TYPE_EMPTY, "tableId[%d] is nullptr", static_cast<int>(tableId))

// Follows the try block of an exported function. `allocation` names what fails without memory.
#define KAVO_CATCH_ALL_IN(unit, allocation)                                        \
  catch (const std::system_error& error) {                                         \
    KAVO_LOG_ERROR(unit, "lock failed, exception caught:%s", error.what());        \
    return KAVO_FAILED;                                                            \
  }                                                                                \
  catch (const std::bad_alloc& error) {                                            \
    KAVO_LOG_EVENT(unit, allocation " failed, exception caught:%s", error.what()); \
    return KAVO_NO_MEMORY;                                                         \
  }                                                                                \
  catch (const std::exception& error) {                                            \
    KAVO_LOG_ERROR(unit, "exception caught:%s", error.what());                     \
    return KAVO_FAILED;                                                            \
  }                                                                                \
  catch (...) {                                                                    \
    KAVO_LOG_ERROR(unit, "unknown exception caught");                              \
    return KAVO_FAILED;                                                            \
  }                                                                                \
  static_assert(true, "a semicolon follows")
#define KAVO_CATCH_ALL KAVO_CATCH_ALL_IN(::Qen::TABLE_LOG_UNIT, "new")

// Ends the function with the status of `call` on the table.
#define KAVO_SERVE(tableId, call, message, ...)                                     \
  try {                                                                             \
    KAVO_RESOLVE(kavoRef, tableId);                                                 \
    KAVO_ANSWER(::Qen::OnTable(kavoRef, call), message __VA_OPT__(, ) __VA_ARGS__); \
  }                                                                                 \
  KAVO_CATCH_ALL

namespace Qen {

// The status of `call` on the table object, which gets it as its class: not virtual, so that calls on it are inlined.
template <class Call>
int OnTable(const TableRef& ref, const Call& call) {
  switch (ref.type) {
    [[likely]] case TABLE_TYPE_BASIC : return call(*static_cast<const BasicTable*>(ref.table));
    case TABLE_TYPE_FILTER:
      return call(*static_cast<const FilterTable*>(ref.table));
    default:
      return KAVO_UNSUPPORTED;
  }
}

}  // namespace Qen
