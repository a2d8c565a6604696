// The exported function that gives a table's statistics.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "adapter/exception_boundary.h"
#include "adapter/table_call.h"
#include "kavo.h"
#include "platform/log.h"

using namespace Qen;

namespace {

// The struct as it was at first. Stays as it is, whatever is added behind.
constexpr unsigned long long FIRST_VERSION_BYTES =
    offsetof(KavoTableStats, linesHeldBack) + sizeof(KavoTableStats::linesHeldBack);
static_assert(FIRST_VERSION_BYTES == 104 && offsetof(KavoTableStats, size) == 0 && sizeof(KavoTableStats::size) == 8);

}  // namespace

int KavoGetTableStats(unsigned int tableId, KavoTableStats* stats) {
  if (stats == nullptr) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoGetTableStats failed, stats == nullptr");
    return KAVO_INVALID;
  }
  if (stats->size < FIRST_VERSION_BYTES) {
    KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoGetTableStats failed, stats->size[%llu] < %llu", stats->size,
                   FIRST_VERSION_BYTES);
    return KAVO_INVALID;
  }
  try {
    KAVO_RESOLVE(ref, tableId);
    KavoTableStats all{};
    const int ret = OnTable(ref, [&all](const auto& table) {
      table.AddStats(all);
      return KAVO_SUCCESS;
    });
    if (ret != KAVO_SUCCESS) {
      KAVO_LOG_ERROR(TABLE_LOG_UNIT, "KavoGetTableStats failed, ret[%d]", ret);
      return ret;
    }
    all.linesHeldBack = LogLinesHeldBack();
    all.size = std::min<unsigned long long>(stats->size, sizeof(all));
    std::memcpy(stats, &all, static_cast<std::size_t>(all.size));
    return KAVO_SUCCESS;
  }
  KAVO_CATCH_ALL
}
