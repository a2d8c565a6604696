#include "incremental_export/report.h"

#include <fmt/format.h>

namespace IncrementalExport {
namespace {

constexpr double MB = 1e6;

}  // namespace

void PrintRule() {
  fmt::print("{:-<80}\n", "");
}

void PrintHead() {
  PrintRule();
  fmt::print("{:<30}{:>12}{:>16}{:>10}{:>12}\n", "phase", "entries", "bytes", "seconds", "MB/s");
  PrintRule();
}

void PrintPhase(const std::string& name, std::uint64_t entries, std::uint64_t bytes, double seconds) {
  const double rate = seconds > 0.0 ? static_cast<double>(bytes) / MB / seconds : 0.0;
  fmt::print("{:<30}{:>12}{:>16}{:>10.3f}{:>12.1f}\n", name, Grouped(entries), Grouped(bytes), seconds, rate);
}

std::string Grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t end = text.size(); end > 3;) {
    end -= 3;
    text.insert(end, 1, ',');
  }
  return text;
}

}  // namespace IncrementalExport
