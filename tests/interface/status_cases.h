// Refused calls, case by case: the status, the lines and the names of the functions that write them, and that no output
// parameter was touched.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "kavo.h"
#include "support/log_capture.h"

namespace KavoTest {

struct Expected {
  std::string function;
  std::string message;
  int level = KAVO_LOG_LEVEL_ERROR;
  bool operator==(const Expected&) const = default;
};

inline void PrintTo(const Expected& line, std::ostream* out) {
  *out << line.function << "/" << line.level << ": " << line.message;
}

struct Case {
  std::string what;
  int status;
  std::function<int()> call;
  std::vector<Expected> lines;
};

class StatusCases : public testing::Test {
 protected:
  static constexpr unsigned LEN = 16;

  // Runs each case on its own capture. No case may change an output parameter.
  void Check(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.what);
      valuePtr = value.data();
      valueLen = 4711;
      isFind = 4712;
      LogCapture capture(KavoSetLogSink);
      EXPECT_EQ(c.status, c.call());
      std::vector<Expected> lines;
      for (const auto& line : capture.Lines()) {
        lines.push_back({line.function, line.message, line.level});
      }
      EXPECT_EQ(c.lines, lines);
      EXPECT_EQ(value.data(), valuePtr);
      EXPECT_EQ(4711U, valueLen);
      EXPECT_EQ(4712U, isFind);
    }
  }

  std::array<unsigned char, LEN> value{};
  unsigned char* valuePtr = nullptr;
  unsigned valueLen = 0;
  unsigned isFind = 0;
};

}  // namespace KavoTest
