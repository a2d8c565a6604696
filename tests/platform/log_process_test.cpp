// The default writer, seen from outside. It is set up while the library is loaded, so each scenario is a process of its
// own: this program once more, which logs into a pipe as KAVO_TEST_CHILD says before it comes to any test.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/log.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"
#include "support/log_capture.h"

namespace {

constexpr char CHILD_UNIT[] = "unit.cpp";

void Levels() {
  KAVO_LOG_DEBUG(CHILD_UNIT, "debug");
  KAVO_LOG_INFO(CHILD_UNIT, "info");
  KAVO_LOG_WARN(CHILD_UNIT, "warn");
  KAVO_LOG_ERROR(CHILD_UNIT, "error");
  KAVO_LOG_EVENT(CHILD_UNIT, "event");
}

void Fire(const std::string& text = "fire") {
  KAVO_LOG_ERROR(CHILD_UNIT, "%s", text.c_str());
}

constexpr int THREADS = 4;
constexpr int LINES = 1000;  // of a thread

// Those of a thread have all lengths about the size of the writer's buffer.
std::string FloodLine(int number) {
  return "fire " + std::to_string(number) + ' ' + std::string(static_cast<std::size_t>(300 + number % LINES), 'x');
}

// From four threads, while signals interrupt the writes. Prints: lines held back so far, nanoseconds from before the
// first line to after the last, interruptions.
std::atomic<int> g_alarms{0};

void Flood() {
  struct sigaction action {};
  action.sa_handler = [](int) { ++g_alarms; };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  const auto start = std::chrono::steady_clock::now();
  const auto work = [](int thread) {
    for (int i = 0; i < LINES; ++i) {
      Fire(FloodLine(LINES * thread + i));
    }
  };
  {
    const std::jthread others[] = {std::jthread(work, 1), std::jthread(work, 2), std::jthread(work, 3)};
    work(0);  // signals of the process come to this one
  }
  const std::chrono::nanoseconds elapsed = std::chrono::steady_clock::now() - start;
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  std::printf("%llu %lld %d\n", Qen::LogLinesHeldBack(), static_cast<long long>(elapsed.count()), g_alarms.load());
}

void FireUntilHeldBack() {
  for (const unsigned long long before = Qen::LogLinesHeldBack(); Qen::LogLinesHeldBack() == before;) {
    Fire();
  }
}

// Holds back a line before another statement writes one, before a sink is installed, and before the end.
void HoldBack() {
  FireUntilHeldBack();
  KAVO_LOG_ERROR(CHILD_UNIT, "other");
  FireUntilHeldBack();
  const KavoLogSink sink{nullptr, [](void*, unsigned, int, const char*, va_list) {}, nullptr};
  Qen::SetLogSink(&sink);
  Qen::SetLogSink(nullptr);
  KAVO_LOG_ERROR(CHILD_UNIT, "sink was installed");
  FireUntilHeldBack();
}

void LongWithoutMemory() {
  const std::string text(5000, 'x');
  Qen::TestHooks::FailAllocation(1);
  Fire(text);
  std::printf("%llu\n", Qen::TestHooks::AllocationFailures());
}

// Prints: errno after a line into a broken pipe, whether SIGPIPE is pending, whether it is blocked; and the same of a
// host that blocks the signal itself.
void BrokenPipe() {
  int ends[2];
  if (::pipe(ends) != 0) {
    std::abort();
  }
  ::close(ends[0]);
  ::dup2(ends[1], STDERR_FILENO);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  for (const bool hostBlocks : {false, true}) {
    pthread_sigmask(hostBlocks ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
    errno = ENOENT;
    Fire();
    const int after = errno;
    sigset_t pending;
    sigset_t blocked;
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    std::printf("%d %d %d ", after, sigismember(&pending, SIGPIPE), sigismember(&blocked, SIGPIPE));
  }
}

[[maybe_unused]] const bool g_isTest = [] {
  const std::map<std::string, void (*)()> scenarios = {{"levels", &Levels},
                                                       {"flood", &Flood},
                                                       {"hold back", &HoldBack},
                                                       {"no memory", &LongWithoutMemory},
                                                       {"broken pipe", &BrokenPipe}};
  if (const char* const scenario = std::getenv("KAVO_TEST_CHILD")) {
    scenarios.at(scenario)();
    std::exit(0);
  }
  return true;
}();

using Texts = std::vector<std::string>;

struct ChildRun {
  Texts lines;         // function and message of log lines, each of which must be whole
  std::string output;  // what the child has printed
};

// The reader is slow at first, so that writes block.
ChildRun RunChild(const std::string& scenario, const std::string& setting = {}) {
  const std::string command = "env -u KAVO_LOG_LEVEL -u KAVO_LOG_RATE KAVO_TEST_CHILD='" + scenario + "' " + setting +
                              ' ' + std::filesystem::read_symlink("/proc/self/exe").string() + " 2>&1";
  std::FILE* const pipe = ::popen(command.c_str(), "r");
  std::string text;
  std::array<char, 4096> buffer{};
  for (std::size_t got = 0; (got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    text.append(buffer.data(), got);
    std::this_thread::sleep_for(std::chrono::milliseconds(text.size() < 400'000 ? 2 : 0));
  }
  EXPECT_EQ(::pclose(pipe), 0) << "the child failed";
  ChildRun run;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const KavoTest::LogLine parsed = KavoTest::ParseLogLine(line + '\n');
    if (parsed.framed) {
      run.lines.push_back(parsed.function + ": " + parsed.message);
    } else {
      EXPECT_EQ(run.output, "") << line;
      run.output = line;
    }
  }
  return run;
}

TEST(LogProcess, TheLevelComesFromTheEnvironmentAndIsWarnOtherwise) {
  const Texts all{"Levels: debug", "Levels: info", "Levels: warn", "Levels: error", "Levels: event"};
  const struct {
    const char* value;
    int first;
  } cases[] = {{"debug", 0}, {"info", 1}, {"warn", 2}, {"error", 3}, {"off", 5}, {"", 2}, {"DEBUG", 2}, {"debugs", 2}};
  for (const auto& [value, first] : cases) {
    const ChildRun run = RunChild("levels", std::string("KAVO_LOG_LEVEL=") + value);
    EXPECT_EQ(run.lines, Texts(all.begin() + first, all.end())) << value;
  }
  EXPECT_EQ(RunChild("levels").lines, Texts(all.begin() + 2, all.end())) << "unset";
}

// Whatever time the child took: at once ten times the rate, then the rate, and no line lost from the account. Where
// there is no bound, no line is lost, or cut, whatever its length and whatever interrupts it.
TEST(LogProcess, AFloodIsBoundedAndHeldBackLinesAreReported) {
  Texts all;
  for (int number = 0; number < THREADS * LINES; ++number) {
    all.push_back("Fire: " + FloodLine(number));
  }
  std::sort(all.begin(), all.end());
  const struct {
    const char* setting;
    unsigned long long rate;
  } cases[] = {{"", 100},
               {"KAVO_LOG_RATE=40", 40},
               {"KAVO_LOG_RATE=1x", 100},
               {"KAVO_LOG_RATE=-1", 100},
               {"KAVO_LOG_RATE=0", 0},
               {"KAVO_LOG_RATE=99999999999999999999999", 0}};
  for (const auto& [setting, rate] : cases) {
    SCOPED_TRACE(setting);
    ChildRun run = RunChild("flood", setting);
    unsigned long long reported = 0;
    unsigned long long count = 0;
    std::erase_if(run.lines, [&](const std::string& line) {
      const bool isReport = std::sscanf(line.c_str(), "Fire: %llu lines held back", &count) == 1;
      reported += isReport ? count : 0;
      return isReport;
    });
    unsigned long long heldBack = 0;
    long long elapsedNs = 0;
    int alarms = 0;
    ASSERT_EQ(std::sscanf(run.output.c_str(), "%llu %lld %d", &heldBack, &elapsedNs, &alarms), 3) << run.output;
    const std::size_t written = run.lines.size();
    EXPECT_EQ(written + heldBack, all.size());
    EXPECT_EQ(reported, heldBack);
    EXPECT_EQ(heldBack == 0, rate == 0) << "too slow a machine for a flood?";
    if (rate == 0) {
      EXPECT_GT(alarms, 0) << "nothing was interrupted";
      std::sort(run.lines.begin(), run.lines.end());
      EXPECT_TRUE(run.lines == all);
    } else {
      EXPECT_GE(written, 10 * rate);
      // The coarse clock may stand up to a tick, at most 10 ms, behind at the start.
      EXPECT_LE(static_cast<double>(written),
                static_cast<double>(rate) * (10.01 + static_cast<double>(elapsedNs) / 1e9) + 1.0);
    }
  }
}

TEST(LogProcess, HeldBackLinesAreReportedBeforeAnyOtherLineBeforeASinkAndAtTheEnd) {
  Texts lines = RunChild("hold back", "KAVO_LOG_RATE=1").lines;
  std::erase(lines, "Fire: fire");
  const std::string report = "Fire: 1 lines held back";
  EXPECT_EQ(lines, (Texts{report, "HoldBack: other", report, "HoldBack: sink was installed", report}));
}

TEST(LogProcess, ALongLineWithoutMemorySaysThatItWasCut) {
  const ChildRun run = RunChild("no memory");
  EXPECT_EQ(run.output, "1");
  ASSERT_EQ(run.lines.size(), 1U);
  EXPECT_GT(run.lines[0].size(), 500U);
  EXPECT_TRUE(run.lines[0].ends_with("x... (line cut, no memory)")) << run.lines[0];
}

TEST(LogProcess, ABrokenStandardErrorHarmsNeitherProcessNorErrno) {
  const std::string error = std::to_string(ENOENT);
  // A host that blocks the signal itself finds it as after any write of its own.
  EXPECT_EQ(RunChild("broken pipe").output, error + " 0 0 " + error + " 1 1 ");
}

}  // namespace
