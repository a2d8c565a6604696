// Click logs as text: comma-separated lines under the header Id,Label,I1..I13,C1..C26 (all 41 names spelled out).
//
// Id is an unsigned number, Label 0 or 1, an I column a decimal integer, a C column up to 8 hexadecimal digits. I and C
// columns may be empty. Lines end in LF or CR LF.
#pragma once

#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>

#include "ctr_training/click_row.h"

namespace CtrTraining {

// "FILE:LINE: what is wrong", or "FILE: what is wrong" when no line is to blame.
class ClickLogError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The 41 column names, comma-separated.
const std::string& ClickLogHeader();

// The line of a row, without a line end.
std::string FormatRow(const ClickRow& row);

// A log file. Reading lines is serialised; parsing them, the larger part of the work, is done by each thread for its
// own block. A line that does not parse makes Next throw, and the blocks before it have been handed out by then.
class ClickLogFile : public RowSource {
 public:
  explicit ClickLogFile(std::string file);

  LogIdentity Identity() const override { return {m_rowCount, 0}; }
  bool KnowsTruth() const override { return false; }
  void Seek(std::uint64_t row) override;
  bool Next(RowBlock& block, std::uint64_t end) override;

 private:
  // The next lines of the file, up to a block's worth; gives the index of the first row among them.
  std::uint64_t ReadLines(std::vector<std::string>& lines, std::uint64_t end);

  const std::string m_file;
  std::uint64_t m_rowCount = 0;

  std::mutex m_mutex;  // guards what follows
  std::ifstream m_stream;
  std::uint64_t m_nextRow = 0;
};

}  // namespace CtrTraining
