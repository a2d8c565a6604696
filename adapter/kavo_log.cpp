// The exported setter of the log sink.
#include "kavo.h"
#include "platform/log.h"
#include "platform/log_sink.h"

int KavoSetLogSink(const KavoLogSink* sink) {
  if (sink != nullptr && sink->write == nullptr) {
    KAVO_LOG_ERROR(Qen::TABLE_LOG_UNIT, "KavoSetLogSink failed, write == nullptr");
    return KAVO_INVALID;
  }
  Qen::SetLogSink(sink);
  return KAVO_SUCCESS;
}
