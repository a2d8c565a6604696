// Results as text for a reader, on a terminal or in Markdown.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

// 1234567 as 1,234,567.
std::string Grouped(std::uint64_t number);

// A paragraph in lines of at most 118 characters, with a line end.
std::string Wrapped(const std::string& text);

// A table of words, the first column to the left, the others to the right.
struct TextTable {
  std::string title;
  std::vector<std::string> notes;  // what a reader must know, one paragraph each
  std::vector<std::string> head;
  std::vector<std::vector<std::string>> rows;

  std::string Plain() const;
  std::string Markdown() const;
};

}  // namespace Bench
