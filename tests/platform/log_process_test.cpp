// The default writer, seen from outside: a child process logs into a socket that keeps each write apart.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

using KavoTest::LogLine;
using KavoTest::ParseLogLine;
using Texts = std::vector<std::string>;

struct ChildRun {
  int status = -1;
  Texts writes;  // to standard error, one element a write
  std::string output;
};

// `settings` are all of the child's KAVO_ variables. A `slow` reader lets the child's writes block.
ChildRun RunChild(const Texts& arguments, const Texts& settings, bool slow = false) {
  int errors[2];
  int output[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, errors), 0);
  EXPECT_EQ(::pipe2(output, O_CLOEXEC), 0);

  Texts strings{LOG_CHILD};
  strings.insert(strings.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& text : strings) {
    argv.push_back(text.data());
  }
  argv.push_back(nullptr);
  Texts environment = settings;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::strncmp(*variable, "KAVO_", 5) != 0) {
      environment.emplace_back(*variable);
    }
  }
  std::vector<char*> envp;
  for (std::string& text : environment) {
    envp.push_back(text.data());
  }
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  pid_t child = -1;
  EXPECT_EQ(::posix_spawn(&child, LOG_CHILD, &actions, nullptr, argv.data(), envp.data()), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(errors[1]);
  ::close(output[1]);

  ChildRun run;
  std::vector<char> buffer(1 << 18);
  for (ssize_t got = 0; (got = ::read(errors[0], buffer.data(), buffer.size())) > 0;) {
    run.writes.emplace_back(buffer.data(), static_cast<std::size_t>(got));
    if (slow && run.writes.size() < 200) {
      ::usleep(2000);
    }
  }
  ::close(errors[0]);
  for (ssize_t got = 0; (got = ::read(output[0], buffer.data(), buffer.size())) > 0;) {
    run.output.append(buffer.data(), static_cast<std::size_t>(got));
  }
  ::close(output[0]);
  EXPECT_EQ(::waitpid(child, &run.status, 0), child);
  EXPECT_EQ(run.status, 0) << "the child failed";
  return run;
}

// Every write must be one whole line; answers the messages.
Texts Messages(const ChildRun& run) {
  Texts messages;
  for (const std::string& write : run.writes) {
    const LogLine line = ParseLogLine(write);
    EXPECT_TRUE(line.framed) << write;
    EXPECT_EQ(line.file, "memory_pool.cpp") << write;
    EXPECT_EQ(std::count(write.begin(), write.end(), '\n'), 1) << write;
    messages.push_back(line.message);
  }
  return messages;
}

TEST(LogProcessTest, LevelComesFromTheEnvironmentAndIsWarnOtherwise) {
  const Texts all{"debug", "info", "warn", "error", "event"};
  const auto from = [&all](int first) { return Texts(all.begin() + first, all.end()); };
  const std::map<std::string, Texts> cases{{"debug", from(0)}, {"info", from(1)},   {"warn", from(2)},
                                           {"error", from(3)}, {"off", Texts{}},    {"", from(2)},
                                           {"DEBUG", from(2)}, {"debugs", from(2)}, {"0", from(2)}};
  for (const auto& [value, shown] : cases) {
    EXPECT_EQ(Messages(RunChild({"levels"}, {"KAVO_LOG_LEVEL=" + value})), shown) << value;
  }
  EXPECT_EQ(Messages(RunChild({"levels"}, {})), from(2)) << "unset";
}

// Whatever time the child took: at once ten times the rate, then the rate, no line lost from the account, and every
// held back line reported, in the statement's own frame.
void CheckFlood(const Texts& settings, unsigned long long rate) {
  SCOPED_TRACE(::testing::PrintToString(settings));
  const ChildRun run = RunChild({"flood", "4", "3000"}, settings);
  unsigned long long written = 0;
  unsigned long long reported = 0;
  std::string previous;
  for (const std::string& message : Messages(run)) {
    unsigned long long count = 0;
    int used = 0;
    if (std::sscanf(message.c_str(), "%llu lines held back%n", &count, &used) == 1 && used > 0) {
      reported += count;
      EXPECT_NE(count, 0u);
    } else {
      EXPECT_EQ(message.rfind("fire ", 0), 0u) << message;
      ++written;
    }
    previous = message;
  }
  EXPECT_EQ(previous, "fire -1");
  for (const std::string& write : run.writes) {
    EXPECT_EQ(ParseLogLine(write).function, "Fire") << write;
  }

  unsigned long long fired = 0;
  unsigned long long heldBack = 0;
  long long elapsedNs = 0;
  ASSERT_EQ(std::sscanf(run.output.c_str(), "%llu %llu %lld", &fired, &heldBack, &elapsedNs), 3) << run.output;
  EXPECT_EQ(written + heldBack, fired);
  EXPECT_EQ(reported, heldBack);
  if (rate == 0) {
    EXPECT_EQ(heldBack, 0u);
    return;
  }
  EXPECT_GT(heldBack, 0u) << "too slow a machine for a flood?";
  EXPECT_GE(written, 10 * rate);
  // The coarse clock may stand up to a tick, at most 10 ms, behind at the start.
  const double seconds = static_cast<double>(elapsedNs) / 1e9 + 0.01;
  EXPECT_LE(static_cast<double>(written), 10.0 * static_cast<double>(rate) + static_cast<double>(rate) * seconds + 1.0);
}

TEST(LogProcessTest, FloodIsBoundedAndHeldBackLinesAreReported) {
  CheckFlood({}, 100);
  CheckFlood({"KAVO_LOG_RATE=1"}, 1);
  CheckFlood({"KAVO_LOG_RATE=40"}, 40);
  CheckFlood({"KAVO_LOG_RATE=0"}, 0);
  CheckFlood({"KAVO_LOG_RATE=99999999999999999999999"}, 0);
}

TEST(LogProcessTest, HeldBackLinesAreReportedBeforeAnyOtherLineBeforeASinkAndAtTheEnd) {
  const ChildRun run = RunChild({"hold-back"}, {"KAVO_LOG_RATE=1"});
  Texts lines;
  for (const std::string& write : run.writes) {
    const LogLine line = ParseLogLine(write);
    if (line.message != "fire 0") {
      lines.push_back(line.function + ": " + line.message);
    }
  }
  const std::string report = "Fire: 1 lines held back";
  EXPECT_EQ(lines, (Texts{report, "HoldBack: other", report, "HoldBack: sink was installed", report}));
}

TEST(LogProcessTest, RateThatIsNoNumberMeansTheDefault) {
  for (const char* const value : {"", "-1", "+1", " 1", "1x", "1.5", "0x10", "many"}) {
    CheckFlood({std::string("KAVO_LOG_RATE=") + value}, 100);
  }
}

TEST(LogProcessTest, EachLineOfManyThreadsIsOneWrite) {
  constexpr int THREADS = 6;
  constexpr int LINES = 500;
  const ChildRun run = RunChild({"threads", std::to_string(THREADS), std::to_string(LINES)}, {"KAVO_LOG_RATE=0"});
  Texts messages = Messages(run);
  Texts expected;
  for (int t = 0; t < THREADS; ++t) {
    for (int i = 0; i < LINES; ++i) {
      expected.push_back("thread " + std::to_string(t) + " line " + std::to_string(i));
    }
  }
  std::sort(messages.begin(), messages.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(messages, expected);
}

TEST(LogProcessTest, LineOfAnyLengthIsWrittenWhole) {
  constexpr int FROM = 900;
  constexpr int TO = 1100;
  const ChildRun run = RunChild({"lengths", std::to_string(FROM), std::to_string(TO)}, {"KAVO_LOG_RATE=0"});
  const Texts messages = Messages(run);
  ASSERT_EQ(messages.size(), static_cast<std::size_t>(TO - FROM + 1));
  for (std::size_t i = 0; i < messages.size(); ++i) {
    EXPECT_EQ(messages[i], std::string(FROM + i, 'x'));
  }
  EXPECT_EQ(Messages(RunChild({"lengths", "70000", "70000"}, {})), Texts{std::string(70000, 'x')});
}

TEST(LogProcessTest, LongLineWithoutMemorySaysThatItWasCut) {
  const ChildRun run = RunChild({"long-without-memory"}, {});
  EXPECT_EQ(run.output, "1\n");
  const Texts messages = Messages(run);
  ASSERT_EQ(messages.size(), 1u);
  const std::string end = "... (line cut, no memory)";
  ASSERT_GT(messages[0].size(), 500 + end.size());
  const std::size_t kept = messages[0].size() - end.size();
  EXPECT_EQ(messages[0], std::string(kept, 'x') + end);
}

TEST(LogProcessTest, SignalsDoNotLoseALine) {
  constexpr int LINES = 2000;
  const ChildRun run = RunChild({"interrupted", std::to_string(LINES)}, {"KAVO_LOG_RATE=0"}, true);
  EXPECT_GT(std::atoi(run.output.c_str()), 0) << "nothing was interrupted";
  const Texts messages = Messages(run);
  ASSERT_EQ(messages.size(), static_cast<std::size_t>(LINES));
  for (int i = 0; i < LINES; ++i) {
    EXPECT_EQ(messages[static_cast<std::size_t>(i)], "fire " + std::to_string(i));
  }
}

TEST(LogProcessTest, BrokenStandardErrorHarmsNeitherProcessNorErrno) {
  const std::string error = std::to_string(ENOENT);
  EXPECT_EQ(RunChild({"broken-pipe", "0"}, {}).output, error + " 0 0\n");
  // A host that blocks the signal itself finds it as after any write of its own.
  EXPECT_EQ(RunChild({"broken-pipe", "1"}, {}).output, error + " 1 1\n");
}

TEST(LogProcessTest, LineLoggedWhileTheProcessEndsIsWritten) {
  EXPECT_EQ(Messages(RunChild({"late"}, {})), Texts{"late"});
}

}  // namespace
