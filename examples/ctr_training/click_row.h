// One impression of a click log, and where rows come from.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace CtrTraining {

inline constexpr std::size_t INTEGER_FIELDS = 13;
inline constexpr std::size_t CATEGORY_FIELDS = 26;
inline constexpr std::size_t FIELDS = INTEGER_FIELDS + CATEGORY_FIELDS;

struct ClickRow {
  std::uint64_t id = 0;
  bool clicked = false;
  std::array<std::optional<std::int64_t>, INTEGER_FIELDS> integers{};
  std::array<std::optional<std::uint32_t>, CATEGORY_FIELDS> categories{};

  bool operator==(const ClickRow&) const = default;
};

// Rows that are learned together, one step of the optimisers.
inline constexpr std::uint64_t BLOCK_ROWS = 64;

struct RowBlock {
  std::uint64_t firstRow = 0;  // counted from 0 within the log
  std::vector<ClickRow> rows;
  std::vector<double> trueLogits;  // what the labels were drawn from, one a row; empty when nobody knows
};

// What tells one log from another.
struct LogIdentity {
  std::uint64_t rows = 0;
  std::uint64_t seed = 0;  // of a generated log

  bool operator==(const LogIdentity&) const = default;
};

// A log that many threads read at once, block by block.
class RowSource {
 public:
  RowSource() = default;
  RowSource(const RowSource&) = delete;
  RowSource& operator=(const RowSource&) = delete;
  virtual ~RowSource() = default;

  virtual LogIdentity Identity() const = 0;
  virtual bool KnowsTruth() const = 0;
  std::uint64_t RowCount() const { return Identity().rows; }

  // The next block will begin with this row. No thread may be in Next.
  virtual void Seek(std::uint64_t row) = 0;

  // Fills the next block that no thread has had; false where it would begin at row `end` or beyond, or the log ends.
  // Blocks are handed out in the order of the log. Safe from any number of threads.
  virtual bool Next(RowBlock& block, std::uint64_t end) = 0;
};

}  // namespace CtrTraining
