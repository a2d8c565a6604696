#include "text_table.h"

#include <fmt/core.h>

#include <algorithm>

namespace Bench {
std::string Wrapped(const std::string& text) {
  constexpr std::size_t WIDTH = 118;
  std::string result;
  std::size_t column = 0;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = std::min(text.find(' ', begin), text.size());
    if (column > 0 && column + 1 + (end - begin) > WIDTH) {
      result += '\n';
      column = 0;
    } else if (column > 0) {
      result += ' ';
      ++column;
    }
    result.append(text, begin, end - begin);
    column += end - begin;
    begin = end + 1;
  }
  return result + '\n';
}

std::string Grouped(std::uint64_t number) {
  const std::string digits = std::to_string(number);
  std::string text;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) {
      text += ',';
    }
    text += digits[i];
  }
  return text;
}

std::string TextTable::Plain() const {
  std::vector<std::size_t> widths;
  for (std::size_t column = 0; column < head.size(); ++column) {
    std::size_t width = head[column].size();
    for (const auto& row : rows) {
      width = std::max(width, row[column].size());
    }
    widths.push_back(width);
  }
  std::string text = title + "\n";
  const auto line = [&](const std::vector<std::string>& cells) {
    for (std::size_t column = 0; column < cells.size(); ++column) {
      text += column == 0 ? fmt::format("  {:<{}}", cells[column], widths[column])
                          : fmt::format("  {:>{}}", cells[column], widths[column]);
    }
    text += '\n';
  };
  line(head);
  for (const auto& row : rows) {
    line(row);
  }
  for (const std::string& note : notes) {
    text += Wrapped(note);
  }
  return text;
}

std::string TextTable::Markdown() const {
  std::string text = "## " + title + "\n\n";
  const auto line = [&](const std::vector<std::string>& cells) {
    text += '|';
    for (const std::string& cell : cells) {
      text += ' ' + cell + " |";
    }
    text += '\n';
  };
  line(head);
  for (std::size_t column = 0; column < head.size(); ++column) {
    text += column == 0 ? "|---|" : "--:|";
  }
  text += '\n';
  for (const auto& row : rows) {
    line(row);
  }
  for (const std::string& note : notes) {
    text += '\n' + Wrapped(note);
  }
  return text;
}

}  // namespace Bench
