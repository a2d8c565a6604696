// The exported functions that concern the process as a whole: where its log lines go, and what it has loaded.
#include "adapter/call_frame.h"
#include "kavo.h"
#include "platform/log_sink.h"

int KavoSetLogSink(const KavoLogSink* sink) {
  KAVO_REFUSE_IF(sink != nullptr && sink->write == nullptr, "KavoSetLogSink failed, write == nullptr");
  Qen::SetLogSink(sink);
  return KAVO_SUCCESS;
}

int KavoVersion(void) {
  return KAVO_VERSION;
}
