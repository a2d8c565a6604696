// What the user sees: a line for each phase as it ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace IncrementalExport {

class Stopwatch {
 public:
  double Seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count(); }

 private:
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

void PrintRule();
void PrintHead();
void PrintPhase(const std::string& name, std::uint64_t entries, std::uint64_t bytes, double seconds);

// 1234567 as 1,234,567.
std::string Grouped(std::uint64_t number);

}  // namespace IncrementalExport
