// The process that log_process_test looks at: logs under the default writer as its first argument says, and prints what
// the test needs to know on standard output.
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/log.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"

namespace {

constexpr char UNIT[] = "memory_pool.cpp";

void Levels() {
  KAVO_LOG_DEBUG(UNIT, "debug");
  KAVO_LOG_INFO(UNIT, "info");
  KAVO_LOG_WARN(UNIT, "warn");
  KAVO_LOG_ERROR(UNIT, "error");
  KAVO_LOG_EVENT(UNIT, "event");
}

void Fire(int number) {
  KAVO_LOG_ERROR(UNIT, "fire %d", number);
}

// Prints: lines fired, lines held back, nanoseconds from before the first to after the last.
void Flood(unsigned threadCount, int linesEach) {
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < threadCount; ++t) {
    threads.emplace_back([linesEach] {
      for (int i = 0; i < linesEach; ++i) {
        Fire(i);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  // Until the statement may write again, and late enough after the last report.
  unsigned long long fired = threadCount * static_cast<unsigned long long>(linesEach);
  for (unsigned long long before = ~0ULL; before != Qen::LogLinesHeldBack();) {
    ::usleep(200000);
    before = Qen::LogLinesHeldBack();
    Fire(-1);
    ++fired;
  }
  const auto elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%llu %llu %lld\n", fired, Qen::LogLinesHeldBack(),
              static_cast<long long>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()));
}

void FireUntilHeldBack() {
  for (const unsigned long long before = Qen::LogLinesHeldBack(); Qen::LogLinesHeldBack() == before;) {
    Fire(0);
  }
}

void IgnoreLine(void*, unsigned, int, const char*, va_list) {}

// Holds back a line before another statement writes one, before a sink is installed, and before the end.
void HoldBack() {
  FireUntilHeldBack();
  KAVO_LOG_ERROR(UNIT, "other");
  FireUntilHeldBack();
  const KavoLogSink sink{nullptr, IgnoreLine, nullptr};
  Qen::SetLogSink(&sink);
  Qen::SetLogSink(nullptr);
  KAVO_LOG_ERROR(UNIT, "sink was installed");
  FireUntilHeldBack();
}

void Threads(int threadCount, int linesEach) {
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([t, linesEach] {
      for (int i = 0; i < linesEach; ++i) {
        KAVO_LOG_ERROR(UNIT, "thread %d line %d", t, i);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// One line for each length of message.
void Lengths(int from, int to) {
  for (int length = from; length <= to; ++length) {
    KAVO_LOG_ERROR(UNIT, "%s", std::string(static_cast<std::size_t>(length), 'x').c_str());
  }
}

void LongWithoutMemory() {
  const std::string text(5000, 'x');
  Qen::TestHooks::FailAllocation(1);
  KAVO_LOG_ERROR(UNIT, "%s", text.c_str());
  std::printf("%llu\n", Qen::TestHooks::AllocationFailures());
}

std::atomic<int> g_alarms{0};
static_assert(std::atomic<int>::is_always_lock_free);

void Interrupted(int lines) {
  struct sigaction action {};
  action.sa_handler = [](int) { ++g_alarms; };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  // On this thread, which gets the signals.
  for (int i = 0; i < lines; ++i) {
    Fire(i);
  }
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  std::printf("%d\n", g_alarms.load());
}

// Prints: errno after a line into a broken pipe, whether SIGPIPE is pending, whether it is blocked.
void BrokenPipe(bool hostBlocks) {
  int ends[2];
  if (::pipe(ends) != 0) {
    std::abort();
  }
  ::close(ends[0]);
  ::dup2(ends[1], STDERR_FILENO);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  if (hostBlocks) {
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
  }
  errno = ENOENT;
  Fire(1);
  const int after = errno;
  sigpending(&set);
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  std::printf("%d %d %d\n", after, sigismember(&set, SIGPIPE), sigismember(&mask, SIGPIPE));
}

// Logs when the process ends, after main's own objects.
struct LateLogger {
  ~LateLogger() {
    if (active) {
      KAVO_LOG_ERROR(UNIT, "late");
    }
  }
  bool active = false;
};
LateLogger g_lateLogger;

}  // namespace

int main(int argc, char** argv) {
  const std::string scenario = argc > 1 ? argv[1] : "";
  const int first = argc > 2 ? std::atoi(argv[2]) : 0;
  const int second = argc > 3 ? std::atoi(argv[3]) : 0;
  if (scenario == "levels") {
    Levels();
  } else if (scenario == "flood") {
    Flood(static_cast<unsigned>(first), second);
  } else if (scenario == "hold-back") {
    HoldBack();
  } else if (scenario == "threads") {
    Threads(first, second);
  } else if (scenario == "lengths") {
    Lengths(first, second);
  } else if (scenario == "long-without-memory") {
    LongWithoutMemory();
  } else if (scenario == "interrupted") {
    Interrupted(first);
  } else if (scenario == "broken-pipe") {
    BrokenPipe(first != 0);
  } else if (scenario == "late") {
    g_lateLogger.active = true;
  } else {
    return 2;
  }
  return 0;
}
