// Changing the sink while others log.
//
// Contract: a line goes to the sink that is current at some moment while it is logged; once SetLogSink has returned, no
// thread is inside the previous sink or will enter it. Threads that log wait for nobody. A setter waits for other
// setters and for the lines already inside the previous sink, never for later ones, however many there are.
//
// Two slots hold a sink each; g_current names the one in use, or none. A thread that logs
//     reads g_current, counts itself in at that slot, and reads g_current again;
// only if it still names the slot may it use the slot's sink, otherwise it counts itself out and starts over. A setter
//     fills the slot not in use, points g_current there, and waits until nobody is counted in at the other.
//
// Invariants
//   - A slot is written only by a setter that holds g_setters, while g_current does not name it, after its count was
//     seen at zero since g_current last named it. Whoever counts himself in after that finds that g_current names
//     another slot, or this one with its new contents; so nobody reads what is being written.
//   - g_current and the counts are sequentially consistent where a thread writes one and then reads the other: of a
//     setter and a thread counting itself in, at least one sees what the other did.
#include "platform/log_sink.h"

#include <cerrno>
#include <limits>
#include <type_traits>

#include "platform/atomic.h"
#include "platform/log.h"
#include "platform/log_writer.h"
#include "platform/mutex.h"
#include "platform/test_hooks.h"
#include "platform/wait.h"

namespace Qen {
namespace {

constexpr int NO_SLOT = -1;
// A gate that stops no level: the sink is to be asked.
constexpr int SINK_DECIDES = std::numeric_limits<int>::min();
constexpr unsigned DRAIN_INTERVAL_US = 50;

struct Slot {
  KavoLogSink sink{};
  Atomic<unsigned long long> inside{0};
};

// Constant-initialised and never destroyed: lines may be logged by other static objects, at exit too.
constinit Slot g_slots[2]{};
constinit Atomic<int> g_current{NO_SLOT};
constinit Mutex g_setters{};
// What LogLevelEnabled compares a level with: the default writer's level, or SINK_DECIDES. A hint only: after it, the
// slots tell whether there is a sink.
constinit Atomic<int> g_gate{LOG_LEVEL_WARN};
static_assert(std::is_trivially_destructible_v<Slot> && std::is_trivially_destructible_v<Mutex>);

// Before every other static object of the library, which may log.
__attribute__((constructor(101))) void OpenGate() {
  ReadLogEnvironment();
  // Relaxed: the library is still being loaded.
  g_gate.store(DefaultLogLevel(), std::memory_order_relaxed);
}

// After every other static object of the library. A sink in place is not bypassed.
__attribute__((destructor(101))) void CloseGate() {
  if (g_current.load() == NO_SLOT) {
    ReportAllHeldBack();
  }
}

// Holds the current sink, if there is one, in place.
class SinkUse {
 public:
  SinkUse() noexcept {
    for (int current = g_current.load(); current != NO_SLOT; current = g_current.load()) {
      KAVO_TEST_POINT("log_sink.before_count");
      Slot& slot = g_slots[current];
      slot.inside.fetch_add(1);
      if (g_current.load() == current) {
        m_slot = &slot;
        return;
      }
      // Relaxed: the slot was not looked at.
      slot.inside.fetch_sub(1, std::memory_order_relaxed);
    }
  }
  SinkUse(const SinkUse&) = delete;
  SinkUse& operator=(const SinkUse&) = delete;
  ~SinkUse() {
    if (m_slot != nullptr) {
      // Release: the use of the sink is over before the setter sees the count at zero.
      m_slot->inside.fetch_sub(1, std::memory_order_release);
    }
  }

  const KavoLogSink* Sink() const noexcept { return m_slot != nullptr ? &m_slot->sink : nullptr; }

 private:
  Slot* m_slot = nullptr;
};

void WaitUntilEmpty(const Slot& slot) noexcept {
  // Without a limit: returning early would break the promise about the context.
  Waiter waiter(DRAIN_INTERVAL_US, std::numeric_limits<unsigned long long>::max());
  while (slot.inside.load() != 0) {
    KAVO_TEST_POINT("log_sink.draining");
    waiter.Pause();
  }
}

}  // namespace

int LogLevelEnabled(unsigned channel, int level) noexcept {
  // Relaxed: a line checked while the sink changes may be judged by either.
  const int gate = g_gate.load(std::memory_order_relaxed);
  if (level < gate) {
    return 0;
  }
  if (gate != SINK_DECIDES) {
    return 1;
  }
  const SinkUse use;
  const KavoLogSink* const sink = use.Sink();
  if (sink == nullptr) {
    return level >= DefaultLogLevel() ? 1 : 0;
  }
  if (sink->enabled == nullptr) {
    return level > LOG_LEVEL_DEBUG ? 1 : 0;
  }
  const int errnoBefore = errno;
  const int answer = sink->enabled(sink->context, channel, level);
  errno = errnoBefore;
  return answer;
}

void RouteLogLine(LogSite& site, unsigned channel, int level, const char* format, va_list arguments) noexcept {
  const SinkUse use;
  if (const KavoLogSink* const sink = use.Sink()) {
    sink->write(sink->context, channel, level, format, arguments);
  } else {
    WriteToStandardError(site, level, format, arguments);
  }
}

void SetLogSink(const KavoLogSink* sink) noexcept {
  const std::lock_guard<Mutex> setter(g_setters);
  // Relaxed: only setters write it, and the lock orders them.
  const int previous = g_current.load(std::memory_order_relaxed);
  // Relaxed stores of the gate: see g_gate.
  if (sink != nullptr) {
    const int next = previous == 0 ? 1 : 0;
    g_slots[next].sink = *sink;
    g_current.store(next);
    g_gate.store(SINK_DECIDES, std::memory_order_relaxed);
  } else {
    g_current.store(NO_SLOT);
    g_gate.store(DefaultLogLevel(), std::memory_order_relaxed);
  }
  if (previous != NO_SLOT) {
    WaitUntilEmpty(g_slots[previous]);
  } else if (sink != nullptr) {
    ReportAllHeldBack();
  }
}

}  // namespace Qen
