// The exported function that gives a table's statistics.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "adapter/call_frame.h"
#include "kavo.h"

using namespace Qen;

namespace {

// The struct as it was at first. Stays as it is, whatever is added behind.
constexpr unsigned long long FIRST_VERSION_BYTES =
    offsetof(KavoTableStats, linesHeldBack) + sizeof(KavoTableStats::linesHeldBack);
static_assert(FIRST_VERSION_BYTES == 104 && offsetof(KavoTableStats, size) == 0 && sizeof(KavoTableStats::size) == 8);

}  // namespace

int KavoGetTableStats(unsigned int tableId, KavoTableStats* stats) {
  KAVO_REFUSE_IF(stats == nullptr, "KavoGetTableStats failed, stats == nullptr");
  KAVO_REFUSE_IF(stats->size < FIRST_VERSION_BYTES, "KavoGetTableStats failed, stats->size[%llu] < %llu", stats->size,
                 FIRST_VERSION_BYTES);
  const auto fill = [stats](const auto& table) {
    KavoTableStats all{};
    table.AddStats(all);
    all.linesHeldBack = LogLinesHeldBack();
    all.size = std::min<unsigned long long>(stats->size, sizeof(all));
    std::memcpy(stats, &all, static_cast<std::size_t>(all.size));
    return KAVO_SUCCESS;
  };
  KAVO_SERVE(tableId, fill, "KavoGetTableStats failed, ret[%d]");
}
