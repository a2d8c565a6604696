// For orientation: what Kavo's cells and value blocks cost when nothing else is done. Cells of 16 bytes, found by the
// key's low 32 bits and then in order, each with the number of its block; 2.4 cells an entry, rounded up to a power of
// two. A fixed size, no growth, no check, no log, and a full table is not noticed.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "huge_range.h"
#include "kavo_layout.h"
#include "subjects/make_entry.h"
#include "value.h"

namespace Bench {
namespace {

class FloorTable {
 public:
  static constexpr const char* NAME = "floor";
  static constexpr bool GROWS = false;

  explicit FloorTable(std::uint64_t expected)
      : m_mask(PreSizedCells(expected) - 1),
        m_cellMemory((m_mask + 1) * sizeof(Cell)),
        m_blockMemory((expected + expected / 4) * BLOCK_BYTES + 64 * RUN * BLOCK_BYTES),
        m_cells(reinterpret_cast<Cell*>(m_cellMemory.Data())) {}

  bool Insert(long key, const Value& value) {
    Cell& cell = Claim(key);
    if (cell.block.load(std::memory_order_acquire) != 0) {
      return false;
    }
    const std::uint32_t block = TakeBlock();
    std::memcpy(ValueAt(block), &value, VALUE_BYTES);
    cell.block.store(block, std::memory_order_release);  // a reader who sees the number sees the value
    return true;
  }

  bool Find(long key, std::uint64_t& sum) const {
    const unsigned char* const value = Lookup(key);
    if (value == nullptr) {
      return false;
    }
    sum += FirstWord(value);
    return true;
  }

  bool Copy(long key, Value& row) const {
    const unsigned char* const value = Lookup(key);
    if (value == nullptr) {
      return false;
    }
    std::memcpy(&row, value, VALUE_BYTES);
    return true;
  }

  bool Train(long key, const Value& gradient) {
    Cell& cell = Claim(key);
    unsigned char* value = ValueOf(cell);
    const bool created = value == nullptr;
    if (created) {
      value = AttachZeros(cell);
    }
    AddShared(value, gradient);
    return created;
  }

  std::uint64_t FindBatch(const long* keys, std::uint64_t num, std::uint64_t& sum) const {
    const unsigned char* values[BATCH_KEYS];
    LookupBatch(keys, num, values);
    std::uint64_t found = 0;
    for (std::uint64_t i = 0; i < num; ++i) {
      if (values[i] != nullptr) {
        sum += FirstWord(values[i]);
        ++found;
      }
    }
    return found;
  }

  void CopyBatch(const long* keys, std::uint64_t num, Value* rows) const {
    const unsigned char* values[BATCH_KEYS];
    LookupBatch(keys, num, values);
    for (std::uint64_t i = 0; i < num; ++i) {
      if (values[i] != nullptr) {
        std::memcpy(&rows[i], values[i], VALUE_BYTES);
      } else {
        rows[i] = Value{};
      }
    }
  }

  std::uint64_t TrainBatch(const long* keys, std::uint64_t num, const Value& gradient) {
    for (std::uint64_t i = 0; i < num; ++i) {
      __builtin_prefetch(&Home(keys[i]), 1);
    }
    unsigned char* values[BATCH_KEYS];
    std::uint64_t created = 0;
    for (std::uint64_t i = 0; i < num; ++i) {
      Cell& cell = Claim(keys[i]);
      values[i] = ValueOf(cell);
      if (values[i] == nullptr) {
        values[i] = AttachZeros(cell);
        ++created;
      }
      __builtin_prefetch(values[i], 1);
    }
    for (std::uint64_t i = 0; i < num; ++i) {
      AddShared(values[i], gradient);
    }
    return created;
  }

  template <class Visit>
  void ForEach(const Visit& visit) {
    for (std::uint64_t i = 0; i <= m_mask; ++i) {
      const std::uint64_t stored = m_cells[i].storedKey.load(std::memory_order_relaxed);
      if (stored != 0) {
        visit(static_cast<long>(~stored), ValueOf(m_cells[i]));
      }
    }
  }

 private:
  struct Cell {
    std::atomic<std::uint32_t> flags;
    std::atomic<std::uint32_t> block;      // its number, from 1; 0 for none
    std::atomic<std::uint64_t> storedKey;  // complemented, 0 for none
  };
  static_assert(sizeof(Cell) == CELL_BYTES);

  static constexpr std::uint64_t RUN = 1024;
  static constexpr std::uint64_t AHEAD = 16;

  std::uint64_t HomeIndex(long key) const { return static_cast<std::uint32_t>(key) & m_mask; }
  Cell& Home(long key) const { return m_cells[HomeIndex(key)]; }

  unsigned char* ValueAt(std::uint32_t block) const { return m_blockMemory.Data() + 8 + BLOCK_BYTES * (block - 1); }
  // Null while there is none.
  unsigned char* ValueOf(const Cell& cell) const {
    const std::uint32_t block = cell.block.load(std::memory_order_acquire);
    return block == 0 ? nullptr : ValueAt(block);
  }

  const unsigned char* Lookup(long key) const {
    const std::uint64_t wanted = ~static_cast<std::uint64_t>(key);
    for (std::uint64_t i = HomeIndex(key);; i = (i + 1) & m_mask) {
      // Relaxed: the block's number orders what follows.
      const std::uint64_t stored = m_cells[i].storedKey.load(std::memory_order_relaxed);
      if (stored == wanted) {
        return ValueOf(m_cells[i]);
      }
      if (stored == 0) {
        return nullptr;
      }
    }
  }

  void LookupBatch(const long* keys, std::uint64_t num, const unsigned char** values) const {
    for (std::uint64_t i = 0; i < std::min(AHEAD, num); ++i) {
      __builtin_prefetch(&Home(keys[i]));
    }
    for (std::uint64_t i = 0; i < num; ++i) {
      if (i + AHEAD < num) {
        __builtin_prefetch(&Home(keys[i + AHEAD]));
      }
      values[i] = Lookup(keys[i]);
      __builtin_prefetch(values[i]);
    }
  }

  Cell& Claim(long key) {
    const std::uint64_t wanted = ~static_cast<std::uint64_t>(key);
    for (std::uint64_t i = HomeIndex(key);; i = (i + 1) & m_mask) {
      std::uint64_t stored = m_cells[i].storedKey.load(std::memory_order_relaxed);  // relaxed: as in Lookup
      if (stored == wanted ||
          (stored == 0 && (m_cells[i].storedKey.compare_exchange_strong(stored, wanted, std::memory_order_relaxed) ||
                           stored == wanted))) {
        return m_cells[i];
      }
    }
  }

  // Of several threads one attaches its block; the others' are lost.
  unsigned char* AttachZeros(Cell& cell) {
    const std::uint32_t block = TakeBlock();
    std::uint32_t expected = 0;
    return ValueAt(cell.block.compare_exchange_strong(expected, block, std::memory_order_acq_rel) ? block : expected);
  }

  std::uint32_t TakeBlock() {
    struct Run {
      const FloorTable* owner = nullptr;
      std::uint64_t serial = 0;
      std::uint64_t next = 0;
      std::uint64_t end = 0;
    };
    thread_local Run run;
    if (run.owner != this || run.serial != m_serial || run.next == run.end) {
      run = {this, m_serial, m_nextRun.fetch_add(RUN, std::memory_order_relaxed), 0};  // relaxed: only a number
      run.end = run.next + RUN;
    }
    return static_cast<std::uint32_t>(++run.next);
  }

  static std::uint64_t NextSerial() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
  }

  const std::uint64_t m_serial = NextSerial();
  std::uint64_t m_mask;
  HugeRange m_cellMemory;
  HugeRange m_blockMemory;
  Cell* m_cells;
  std::atomic<std::uint64_t> m_nextRun{0};
};

}  // namespace

SubjectEntry FloorEntry() {
  return MakeEntry<FloorTable>({Fill::SIZED});
}

}  // namespace Bench
