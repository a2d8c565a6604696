#include "ctr_training/click_log.h"

#include <limits>

#include "ctr_training/click_generator.h"
#include "ctr_training/trainer.h"
#include "support/own_folder.h"

namespace CtrTraining {
namespace {

// Of a training on the log, with as many threads as find the bad lines in any order.
std::string ErrorOf(const std::string& path) {
  try {
    ClickLogFile log(path);
    TrainingOptions options;
    options.threads = 4;
    TrainingState state;
    Train(log, Model(ModelOptions{}), options, state);
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
  const OwnFolder folder;
  const std::vector<ClickRow> rows = SomeRows(1000);
  std::string withoutLastEnd = Text(rows, "\n");
  withoutLastEnd.pop_back();
  for (const std::string& text : {Text(rows, "\n"), Text(rows, "\r\n"), withoutLastEnd}) {
    ClickLogFile log(folder.Write("log", text));
    EXPECT_EQ(log.RowCount(), rows.size());
    // From the beginning, again, and from rows before and behind where it stands.
    for (const std::size_t first : {0U, 0U, 700U, 999U, 3U}) {
      log.Seek(first);
      std::vector<ClickRow> read(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(first));
      for (RowBlock block; log.Next(block, first == 999 ? 1000 : 2000);) {
        EXPECT_EQ(block.firstRow, read.size());
        read.insert(read.end(), block.rows.begin(), block.rows.end());
      }
      EXPECT_EQ(read, rows);
    }
  }
}

TEST(ClickLog, BadInputIsReportedWithFileLineAndCause) {
  const OwnFolder folder;
  const std::string header = ClickLogHeader() + "\n";
  std::string renamed = header;
  renamed.replace(renamed.find("I13"), 3, "J13");
  const std::string head = header + FormatRow(SomeRows(3)[1]) + "\n";
  const std::string tail(FIELDS, ',');
  const std::string c1 = "1,0" + std::string(INTEGER_FIELDS, ',') + ",";
  const std::string others(CATEGORY_FIELDS - 1, ',');
  const struct {
    std::string text;
    std::string cause;
  } cases[] = {
      {renamed, ":1: wrong header: column 15 is 'J13', expected 'I13'"},
      {"", ":1: 1 columns, expected 41"},
      {header, ": no rows after the header"},
      {head + "1,0" + tail + ",\n", ":3: 42 columns, expected 41"},
      {head + "\n", ":3: 1 columns, expected 41"},
      {head + "-1,0" + tail + "\n", ":3: Id '-1' is not an unsigned number"},
      {head + "1,2" + tail + "\n", ":3: Label '2' is neither 0 nor 1"},
      {head + "1,0,9223372036854775808" + tail.substr(1) + "\n",
       ":3: I1 '9223372036854775808' is not a 64-bit integer"},
      {head + c1 + "68fd1g64" + others + "\n", ":3: C1 '68fd1g64' is not a category of up to 8 hexadecimal digits"},
      {head + c1 + "068fd1e64" + others + "\n", ":3: C1 '068fd1e64' is not a category of up to 8 hexadecimal digits"},
      {Text(SomeRows(1000), "\n") + "oops\n" + Text(SomeRows(1000), "\n"), ":1002: 1 columns, expected 41"},
  };
  for (const auto& [text, cause] : cases) {
    const std::string path = folder.Write("log", text);
    EXPECT_EQ(ErrorOf(path), path + cause);
  }
  EXPECT_EQ(ErrorOf(folder.Path("absent")), folder.Path("absent") + ": cannot be opened");
  EXPECT_EQ(ErrorOf(folder.Path("")), folder.Path("") + ": cannot be read");
}

}  // namespace
}  // namespace CtrTraining
