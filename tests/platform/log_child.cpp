// The process that log_process_test looks at: logs under the default writer as its first argument says, and prints what
// the test needs to know.
#include <sys/time.h>
#include <unistd.h>

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

constexpr char UNIT[] = "unit.cpp";

void Levels() {
  KAVO_LOG_DEBUG(UNIT, "debug");
  KAVO_LOG_INFO(UNIT, "info");
  KAVO_LOG_WARN(UNIT, "warn");
  KAVO_LOG_ERROR(UNIT, "error");
  KAVO_LOG_EVENT(UNIT, "event");
}

void Fire(int number, const std::string& text = {}) {
  KAVO_LOG_ERROR(UNIT, "fire %d %s", number, text.c_str());
}

template <class Work>
void InFourThreads(Work work) {
  std::vector<std::thread> threads;
  for (int t = 1; t < 4; ++t) {
    threads.emplace_back(work, t);
  }
  work(0);  // signals of the process come to this one
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// Prints: lines held back so far, nanoseconds from before the first line to after the last.
void Flood() {
  const auto start = std::chrono::steady_clock::now();
  InFourThreads([](int) {
    for (int i = 0; i < 3000; ++i) {
      Fire(i);
    }
  });
  const std::chrono::nanoseconds elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%llu %lld\n", Qen::LogLinesHeldBack(), static_cast<long long>(elapsed.count()));
}

void FireUntilHeldBack() {
  for (const unsigned long long before = Qen::LogLinesHeldBack(); Qen::LogLinesHeldBack() == before;) {
    Fire(0);
  }
}

// Holds back a line before another statement writes one, before a sink is installed, and before the end.
void HoldBack() {
  FireUntilHeldBack();
  KAVO_LOG_ERROR(UNIT, "other");
  FireUntilHeldBack();
  const KavoLogSink sink{nullptr, [](void*, unsigned, int, const char*, va_list) {}, nullptr};
  Qen::SetLogSink(&sink);
  Qen::SetLogSink(nullptr);
  KAVO_LOG_ERROR(UNIT, "sink was installed");
  FireUntilHeldBack();
}

// Lines of all lengths about the writer's buffer, from four threads, while signals interrupt the writes. Prints how
// many of them came.
volatile std::sig_atomic_t g_alarms = 0;

void Threads() {
  struct sigaction action {};
  action.sa_handler = [](int) { g_alarms = g_alarms + 1; };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  InFourThreads([](int t) {
    for (int i = 0; i < 500; ++i) {
      Fire(1000 * t + i, std::string(static_cast<std::size_t>(800 + i), 'x'));
    }
  });
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  std::printf("%d\n", static_cast<int>(g_alarms));
}

void LongWithoutMemory() {
  const std::string text(5000, 'x');
  Qen::TestHooks::FailAllocation(1);
  Fire(1, text);
  std::printf("%llu\n", Qen::TestHooks::AllocationFailures());
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
  sigset_t mask;
  sigpending(&set);
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  std::printf("%d %d %d\n", after, sigismember(&set, SIGPIPE), sigismember(&mask, SIGPIPE));
}

}  // namespace

int main(int, char** argv) {
  const std::string scenario = argv[1];
  if (scenario == "levels") {
    Levels();
  } else if (scenario == "flood") {
    Flood();
  } else if (scenario == "hold back") {
    HoldBack();
  } else if (scenario == "threads") {
    Threads();
  } else if (scenario == "no memory") {
    LongWithoutMemory();
  } else {
    BrokenPipe(scenario == "broken pipe, blocked");
  }
}
