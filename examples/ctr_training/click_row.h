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

// The unit of work of a training thread.
struct RowBlock {
  std::uint64_t firstRow = 0;  // counted from 0 within the log
  std::vector<ClickRow> rows;
  std::vector<double> trueLogits;  // what the labels were drawn from, one a row; empty when nobody knows
};

// A log that many threads read at once, block by block.
class RowSource {
 public:
  RowSource() = default;
  RowSource(const RowSource&) = delete;
  RowSource& operator=(const RowSource&) = delete;
  virtual ~RowSource() = default;

  virtual std::uint64_t RowCount() const = 0;
  virtual bool KnowsTruth() const = 0;

  // Fills the next block that no thread has had; false at the end of the log. Blocks are handed out in the order of the
  // log. Safe from any number of threads.
  virtual bool Next(RowBlock& block) = 0;

  // Back to the first row, for another epoch. No thread may be in Next.
  virtual void Rewind() = 0;
};

}  // namespace CtrTraining
