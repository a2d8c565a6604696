#include "ctr_training/click_log.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <string_view>

namespace CtrTraining {
namespace {

constexpr std::size_t COLUMNS = 2 + FIELDS;

// Line 1 is the header, so row 0 stands on line 2.
constexpr std::uint64_t FIRST_ROW_LINE = 2;

using Columns = std::array<std::string_view, COLUMNS>;

[[noreturn]] void Fail(const std::string& file, std::uint64_t line, const std::string& what) {
  throw ClickLogError(fmt::format("{}:{}: {}", file, line, what));
}

std::string_view WithoutLineEnd(std::string_view text) {
  if (text.ends_with('\r')) {
    text.remove_suffix(1);
  }
  return text;
}

Columns Split(std::string_view text, const std::string& file, std::uint64_t line) {
  Columns columns;
  std::size_t count = 0;
  for (std::size_t begin = 0; begin <= text.size(); ++count) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    if (count < COLUMNS) {
      columns[count] = text.substr(begin, end - begin);
    }
    begin = end + 1;
  }
  if (count != COLUMNS) {
    Fail(file, line, fmt::format("{} columns, expected {}", count, COLUMNS));
  }
  return columns;
}

// None of an empty text too.
template <typename Number>
std::optional<Number> ParseNumber(std::string_view text, int base = 10) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc{} || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

void CheckHeader(std::string_view text, const std::string& file) {
  const Columns expected = Split(ClickLogHeader(), "header", 1);
  const Columns found = Split(WithoutLineEnd(text), file, 1);
  for (std::size_t i = 0; i < COLUMNS; ++i) {
    if (found[i] != expected[i]) {
      Fail(file, 1, fmt::format("wrong header: column {} is '{}', expected '{}'", i + 1, found[i], expected[i]));
    }
  }
}

ClickRow ParseRow(std::string_view text, const std::string& file, std::uint64_t line) {
  const Columns columns = Split(WithoutLineEnd(text), file, line);
  ClickRow row;

  const auto id = ParseNumber<std::uint64_t>(columns[0]);
  if (!id) {
    Fail(file, line, fmt::format("Id '{}' is not an unsigned number", columns[0]));
  }
  row.id = *id;
  if (columns[1] != "0" && columns[1] != "1") {
    Fail(file, line, fmt::format("Label '{}' is neither 0 nor 1", columns[1]));
  }
  row.clicked = columns[1] == "1";

  for (std::size_t i = 0; i < INTEGER_FIELDS; ++i) {
    const std::string_view column = columns[2 + i];
    row.integers[i] = ParseNumber<std::int64_t>(column);
    if (!column.empty() && !row.integers[i]) {
      Fail(file, line, fmt::format("I{} '{}' is not a 64-bit integer", i + 1, column));
    }
  }
  for (std::size_t i = 0; i < CATEGORY_FIELDS; ++i) {
    const std::string_view column = columns[2 + INTEGER_FIELDS + i];
    row.categories[i] = ParseNumber<std::uint32_t>(column, 16);
    if (!column.empty() && (!row.categories[i] || column.size() > 8)) {
      Fail(file, line, fmt::format("C{} '{}' is not a category of up to 8 hexadecimal digits", i + 1, column));
    }
  }
  return row;
}

}  // namespace

const std::string& ClickLogHeader() {
  static const std::string header = [] {
    std::string names = "Id,Label";
    for (std::size_t i = 1; i <= INTEGER_FIELDS; ++i) {
      names += fmt::format(",I{}", i);
    }
    for (std::size_t i = 1; i <= CATEGORY_FIELDS; ++i) {
      names += fmt::format(",C{}", i);
    }
    return names;
  }();
  return header;
}

std::string FormatRow(const ClickRow& row) {
  std::string text = fmt::format("{},{}", row.id, row.clicked ? 1 : 0);
  const auto out = std::back_inserter(text);
  for (const auto& integer : row.integers) {
    integer ? fmt::format_to(out, ",{}", *integer) : fmt::format_to(out, ",");
  }
  for (const auto& category : row.categories) {
    category ? fmt::format_to(out, ",{:08x}", *category) : fmt::format_to(out, ",");
  }
  return text;
}

ClickLogFile::ClickLogFile(std::string file) : m_file(std::move(file)), m_stream(m_file) {
  if (!m_stream) {
    throw ClickLogError(fmt::format("{}: cannot be opened", m_file));
  }
  std::string line;
  if (!std::getline(m_stream, line) && m_stream.bad()) {
    throw ClickLogError(fmt::format("{}: cannot be read", m_file));
  }
  CheckHeader(line, m_file);
  while (std::getline(m_stream, line)) {
    ++m_rowCount;
  }
  if (m_stream.bad()) {
    throw ClickLogError(fmt::format("{}: cannot be read", m_file));
  }
  if (m_rowCount == 0) {
    throw ClickLogError(fmt::format("{}: no rows after the header", m_file));
  }
  m_nextRow = m_rowCount;
}

void ClickLogFile::Seek(std::uint64_t row) {
  const std::lock_guard lock(m_mutex);
  std::string line;
  if (row < m_nextRow) {
    m_stream.clear();
    m_stream.seekg(0);
    std::getline(m_stream, line);  // the header
    m_nextRow = 0;
  }
  while (m_nextRow < row && std::getline(m_stream, line)) {
    ++m_nextRow;
  }
}

std::uint64_t ClickLogFile::ReadLines(std::vector<std::string>& lines, std::uint64_t end) {
  const std::lock_guard lock(m_mutex);
  lines.resize(m_nextRow < end ? BLOCK_ROWS : 0);
  std::size_t count = 0;
  while (count < lines.size() && std::getline(m_stream, lines[count])) {
    ++count;
  }
  if (m_stream.bad()) {
    throw ClickLogError(fmt::format("{}: cannot be read beyond line {}", m_file, m_nextRow + count + 1));
  }
  lines.resize(count);
  const std::uint64_t firstRow = m_nextRow;
  m_nextRow += count;
  return firstRow;
}

bool ClickLogFile::Next(RowBlock& block, std::uint64_t end) {
  std::vector<std::string> lines;
  block.rows.clear();
  block.trueLogits.clear();
  block.firstRow = ReadLines(lines, end);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    block.rows.push_back(ParseRow(lines[i], m_file, block.firstRow + i + FIRST_ROW_LINE));
  }
  return !block.rows.empty();
}

}  // namespace CtrTraining
