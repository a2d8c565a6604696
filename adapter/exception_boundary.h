// The end of every exported function's body: no exception leaves the library. The handlers stand in the function
// itself because their lines carry its name; on the success path they cost nothing. KAVO_CATCH_ALL_AS names the unit
// under which they log.
#pragma once

#include <exception>
#include <new>
#include <system_error>

#include "kavo.h"
#include "platform/log.h"

#define KAVO_CATCH_ALL_AS(unit)                                             \
  catch (const std::system_error& error) {                                  \
    KAVO_LOG_ERROR(unit, "lock failed, exception caught:%s", error.what()); \
    return KAVO_FAILED;                                                     \
  }                                                                         \
  catch (const std::bad_alloc& error) {                                     \
    KAVO_LOG_EVENT(unit, "new failed, exception caught:%s", error.what());  \
    return KAVO_NO_MEMORY;                                                  \
  }                                                                         \
  catch (const std::exception& error) {                                     \
    KAVO_LOG_ERROR(unit, "exception caught:%s", error.what());              \
    return KAVO_FAILED;                                                     \
  }                                                                         \
  catch (...) {                                                             \
    KAVO_LOG_ERROR(unit, "unknown exception caught");                       \
    return KAVO_FAILED;                                                     \
  }

#define KAVO_CATCH_ALL KAVO_CATCH_ALL_AS(::Qen::TABLE_LOG_UNIT)
