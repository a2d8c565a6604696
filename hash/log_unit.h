// The unit under which all table code logs, templates included, whatever file a statement stands in.
#pragma once

#include "platform/log.h"

namespace Qen {

inline constexpr char TABLE_LOG_UNIT[] = "concurrent_tables_adapter.cpp";

}  // namespace Qen
