// The default writer, seen from outside: a child process logs into a pipe.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace {

using Texts = std::vector<std::string>;

struct ChildRun {
  Texts messages;      // of log lines, each of which must be whole
  Texts functions;     // that they name
  std::string output;  // what the child has printed
};

// The reader is slow at first, so that writes block.
ChildRun RunChild(const std::string& scenario, const std::string& setting = {}) {
  const std::string command =
      "env -u KAVO_LOG_LEVEL -u KAVO_LOG_RATE " + setting + ' ' + LOG_CHILD + " '" + scenario + "' 2>&1";
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
      run.messages.push_back(parsed.message);
      run.functions.push_back(parsed.function);
    } else {
      EXPECT_EQ(run.output, "") << line;
      run.output = line;
    }
  }
  return run;
}

TEST(LogProcess, TheLevelComesFromTheEnvironmentAndIsWarnOtherwise) {
  const Texts all{"debug", "info", "warn", "error", "event"};
  const struct {
    const char* value;
    int first;
  } cases[] = {{"debug", 0}, {"info", 1}, {"warn", 2}, {"error", 3}, {"off", 5}, {"", 2}, {"DEBUG", 2}, {"debugs", 2}};
  for (const auto& [value, first] : cases) {
    const ChildRun run = RunChild("levels", std::string("KAVO_LOG_LEVEL=") + value);
    EXPECT_EQ(run.messages, Texts(all.begin() + first, all.end())) << value;
  }
  EXPECT_EQ(RunChild("levels").messages, Texts(all.begin() + 2, all.end())) << "unset";
}

// Whatever time the child took: at once ten times the rate, then the rate, and no line lost from the account.
TEST(LogProcess, AFloodIsBoundedAndHeldBackLinesAreReported) {
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
    const ChildRun run = RunChild("flood", setting);
    unsigned long long written = 0;
    unsigned long long reported = 0;
    for (const std::string& message : run.messages) {
      unsigned long long count = 0;
      const bool isReport = std::sscanf(message.c_str(), "%llu lines held back", &count) == 1;
      reported += count;
      written += isReport ? 0 : 1;
    }
    unsigned long long heldBack = 0;
    long long elapsedNs = 0;
    ASSERT_EQ(std::sscanf(run.output.c_str(), "%llu %lld", &heldBack, &elapsedNs), 2) << run.output;
    EXPECT_EQ(written + heldBack, 4 * 3000U);
    EXPECT_EQ(reported, heldBack);
    EXPECT_EQ(heldBack == 0, rate == 0) << "too slow a machine for a flood?";
    if (rate != 0) {
      EXPECT_GE(written, 10 * rate);
      // The coarse clock may stand up to a tick, at most 10 ms, behind at the start.
      EXPECT_LE(static_cast<double>(written),
                static_cast<double>(rate) * (10.01 + static_cast<double>(elapsedNs) / 1e9) + 1.0);
    }
  }
}

TEST(LogProcess, HeldBackLinesAreReportedBeforeAnyOtherLineBeforeASinkAndAtTheEnd) {
  const ChildRun run = RunChild("hold back", "KAVO_LOG_RATE=1");
  Texts lines;
  for (std::size_t i = 0; i < run.messages.size(); ++i) {
    if (run.messages[i] != "fire 0 ") {
      lines.push_back(run.functions[i] + ": " + run.messages[i]);
    }
  }
  const std::string report = "Fire: 1 lines held back";
  EXPECT_EQ(lines, (Texts{report, "HoldBack: other", report, "HoldBack: sink was installed", report}));
}

TEST(LogProcess, LinesOfManyThreadsAreWholeWhateverTheirLengthAndWhateverInterruptsThem) {
  ChildRun run = RunChild("threads", "KAVO_LOG_RATE=0");
  EXPECT_GT(std::atoi(run.output.c_str()), 0) << "nothing was interrupted";
  Texts expected;
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 500; ++i) {
      const std::string text(static_cast<std::size_t>(800 + i), 'x');
      expected.push_back("fire " + std::to_string(1000 * t + i) + ' ' + text);
    }
  }
  std::sort(run.messages.begin(), run.messages.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(run.messages == expected) << run.messages.size() << " lines";
}

TEST(LogProcess, ALongLineWithoutMemorySaysThatItWasCut) {
  const ChildRun run = RunChild("no memory");
  EXPECT_EQ(run.output, "1");
  ASSERT_EQ(run.messages.size(), 1U);
  const std::string end = "x... (line cut, no memory)";
  ASSERT_GT(run.messages[0].size(), 500 + end.size());
  EXPECT_EQ(run.messages[0].substr(run.messages[0].size() - end.size()), end);
}

TEST(LogProcess, ABrokenStandardErrorHarmsNeitherProcessNorErrno) {
  const std::string error = std::to_string(ENOENT);
  EXPECT_EQ(RunChild("broken pipe").output, error + " 0 0");
  // A host that blocks the signal itself finds it as after any write of its own.
  EXPECT_EQ(RunChild("broken pipe, blocked").output, error + " 1 1");
}

}  // namespace
