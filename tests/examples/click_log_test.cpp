#include "ctr_training/click_log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>

#include "ctr_training/click_generator.h"

namespace CtrTraining {
namespace {

// A log file for the length of a test.
class TemporaryLog {
 public:
  explicit TemporaryLog(const std::string& text) : m_path(testing::TempDir() + "click_log_test.csv") {
    std::ofstream(m_path, std::ios::binary) << text;
  }
  ~TemporaryLog() { std::filesystem::remove(m_path); }
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};

std::vector<ClickRow> ReadAll(RowSource& source) {
  std::vector<ClickRow> rows;
  for (RowBlock block; source.Next(block);) {
    EXPECT_EQ(block.firstRow, rows.size());
    rows.insert(rows.end(), block.rows.begin(), block.rows.end());
  }
  return rows;
}

std::string ErrorOf(const std::string& path) {
  try {
    ClickLogFile log(path);
    ReadAll(log);
  } catch (const ClickLogError& error) {
    return error.what();
  }
  return "no error";
}

std::vector<ClickRow> SomeRows(std::uint64_t count) {
  RowBlock block;
  ClickGenerator(count, 7).Generate(0, count, block);
  block.rows.front() = ClickRow{};
  ClickRow& extreme = block.rows.back();
  extreme.id = std::numeric_limits<std::uint64_t>::max();
  extreme.integers.front() = std::numeric_limits<std::int64_t>::min();
  extreme.integers.back() = std::numeric_limits<std::int64_t>::max();
  extreme.categories.front() = std::numeric_limits<std::uint32_t>::max();
  extreme.categories.back() = 0;
  return block.rows;
}

std::string Text(const std::vector<ClickRow>& rows, const std::string& lineEnd) {
  std::string text = ClickLogHeader() + lineEnd;
  for (const ClickRow& row : rows) {
    text += FormatRow(row) + lineEnd;
  }
  return text;
}

TEST(ClickLog, WrittenRowsReadBackWhateverTheLineEnds) {
  const std::vector<ClickRow> rows = SomeRows(1000);
  std::string withoutLastEnd = Text(rows, "\n");
  withoutLastEnd.pop_back();
  for (const std::string& text : {Text(rows, "\n"), Text(rows, "\r\n"), withoutLastEnd}) {
    const TemporaryLog file(text);
    ClickLogFile log(file.Path());
    EXPECT_EQ(log.RowCount(), rows.size());
    for (int epoch = 0; epoch < 2; ++epoch) {
      EXPECT_EQ(ReadAll(log), rows);
      log.Rewind();
    }
  }
}

TEST(ClickLog, BadInputIsReportedWithFileLineAndCause) {
  const std::string good = FormatRow(SomeRows(3)[1]);
  const std::string tail(FIELDS, ',');
  const std::string integers(INTEGER_FIELDS, ',');
  const std::string categories(CATEGORY_FIELDS - 1, ',');
  const struct {
    std::string badLine;
    std::string cause;
  } cases[] = {
      {"1,0" + tail + ",", "42 columns, expected 41"},
      {"1,0" + tail.substr(1), "40 columns, expected 41"},
      {"", "1 columns, expected 41"},
      {",0" + tail, "Id '' is not an unsigned number"},
      {"-1,0" + tail, "Id '-1' is not an unsigned number"},
      {"1,2" + tail, "Label '2' is neither 0 nor 1"},
      {"1," + tail, "Label '' is neither 0 nor 1"},
      {"1,0,7x" + tail.substr(1), "I1 '7x' is not a 64-bit integer"},
      {"1,0,9223372036854775808" + tail.substr(1), "I1 '9223372036854775808' is not a 64-bit integer"},
      {"1,0" + integers + ",68fd1g64" + categories, "C1 '68fd1g64' is not a category of up to 8 hexadecimal digits"},
      {"1,0" + integers + ",068fd1e64" + categories, "C1 '068fd1e64' is not a category of up to 8 hexadecimal digits"},
      {"1,0" + integers + ",-1" + categories, "C1 '-1' is not a category of up to 8 hexadecimal digits"},
  };
  for (const auto& [badLine, cause] : cases) {
    const TemporaryLog file(ClickLogHeader() + "\n" + good + "\n" + badLine + "\n" + good + "\n");
    EXPECT_EQ(ErrorOf(file.Path()), file.Path() + ":3: " + cause);
  }
}

TEST(ClickLog, LineNumbersHoldBeyondTheFirstBlock) {
  std::string text = Text(SomeRows(1000), "\n");
  const TemporaryLog file(text + "oops\n");
  EXPECT_EQ(ErrorOf(file.Path()), file.Path() + ":1002: 1 columns, expected 41");
}

TEST(ClickLog, WrongHeaderMissingFileAndMissingRowsAreReported) {
  std::string header = ClickLogHeader();
  {
    std::string renamed = header;
    renamed.replace(renamed.find("I13"), 3, "J13");
    const TemporaryLog file(renamed + "\n");
    EXPECT_EQ(ErrorOf(file.Path()), file.Path() + ":1: wrong header: column 15 is 'J13', expected 'I13'");
  }
  {
    const TemporaryLog file("");
    EXPECT_EQ(ErrorOf(file.Path()), file.Path() + ":1: 1 columns, expected 41");
  }
  {
    const TemporaryLog file(header);
    EXPECT_EQ(ErrorOf(file.Path()), file.Path() + ": no rows after the header");
  }
  const std::string absent = testing::TempDir() + "no_such_click_log.csv";
  EXPECT_EQ(ErrorOf(absent), absent + ": cannot be opened");
  EXPECT_EQ(ErrorOf(testing::TempDir()), testing::TempDir() + ": cannot be read");
}

}  // namespace
}  // namespace CtrTraining
