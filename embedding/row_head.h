// The head of a row: eight bytes before its floats, changed as one word.
//
//   bit 0        WHOLE      the floats are those of one moment
//   bit 1        FORGOTTEN  with WHOLE: absent to every call; new if it comes back
//   bits 2-9     SAVE       number, 1 to 255, of the last save that took the row; 0 none. Only ever compared with the
//                           number of the save under way
//   bits 10-27   VERSION    counts the writes of the row, modulo 2^18
//   bits 28-63   STEP       number of the step that trained the row last, or that was to come when it was created or
//                           set; from 1 on
//
// STATES, and who leaves them
//
//   0               no start yet: the block is new. Absent to readers. Left by the compare-exchange of whoever creates
//                   the row: any thread may, since a start is a pure function of the key.
//   even, not 0     being written. Left by the thread that cleared WHOLE (or found 0); it waits for nobody.
//   WHOLE           left by the compare-exchange of a writer, of a save that marks it, or of whoever forgets it.
//
// INVARIANTS
//   R1  Floats change only in a head that is even, and by the thread that made it so.
//   R2  Every write ends with a head that differs from the one before it in STEP or VERSION. A reader that finds the
//       same two before and after it has copied the floats has those of one moment. (It could be deceived by 2^18
//       writes in one step, none less and none more, between two of its loads: sets alone can write twice in a step.)
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/atomic.h"

namespace Qen {

class RowHead {
 public:
  using Word = std::uint64_t;

  static constexpr std::size_t BYTES = sizeof(Word);
  static constexpr Word WHOLE = 1;
  static constexpr Word FORGOTTEN = 2;
  static constexpr unsigned SAVE_SHIFT = 2;
  static constexpr Word SAVE_MASK = Word{0xFF} << SAVE_SHIFT;
  static constexpr unsigned VERSION_SHIFT = 10;
  static constexpr Word VERSION_ONE = Word{1} << VERSION_SHIFT;
  static constexpr unsigned STEP_SHIFT = 28;
  static constexpr Word VERSION_MASK = ((Word{1} << STEP_SHIFT) - 1) & ~((Word{1} << VERSION_SHIFT) - 1);
  static constexpr std::uint64_t MAX_STEP = (std::uint64_t{1} << 36) - 1;

  // `row` is where the row's value begins, aligned to 8 bytes.
  explicit RowHead(unsigned char* row) noexcept : m_word(*reinterpret_cast<Word*>(row)) {}

  static bool HasRow(Word word) noexcept { return (word & (WHOLE | FORGOTTEN)) == WHOLE; }
  static bool IsBeingWritten(Word word) noexcept { return word != 0 && (word & WHOLE) == 0; }
  static std::uint64_t Step(Word word) noexcept { return word >> STEP_SHIFT; }
  static unsigned Save(Word word) noexcept { return static_cast<unsigned>((word & SAVE_MASK) >> SAVE_SHIFT); }
  // Whether the floats may have changed between two readings of a whole row.
  static bool IsSameWrite(Word a, Word b) noexcept { return (a & ~SAVE_MASK) == (b & ~SAVE_MASK); }

  // Acquire: whoever sees WHOLE sees the floats of that write (EndWrite).
  Word Load() const noexcept { return m_word.load(std::memory_order_acquire); }

  // The second reading of a reader: ordered behind its loads of floats by its own fence (row_copy.h), hence relaxed.
  Word LoadAgain() const noexcept { return m_word.load(std::memory_order_relaxed); }

  // Makes the caller the row's writer if the head still is `observed` (0, or whole). Acquire: the writer sees the
  // floats of the write before. That its own stores stay behind this is BeginFloats' fence.
  bool TryBeginWrite(Word& observed) noexcept {
    return m_word.compare_exchange_weak(observed, Writing(observed), std::memory_order_acquire,
                                        std::memory_order_acquire);
  }

  // Ends the write that began at `observed`, whose mark of a save stays: a save takes a row once. Release: see Load.
  void EndWrite(Word observed, std::uint64_t step) noexcept {
    m_word.store(After(observed, step), std::memory_order_release);
  }

  // Exchanges a whole head for one with another mark; false when it has changed. Release: passes on, to whoever sees
  // the new word, what the one before it carried.
  bool TryMark(Word& observed, Word marked) noexcept {
    return m_word.compare_exchange_strong(observed, marked, std::memory_order_acq_rel, std::memory_order_acquire);
  }
  static Word WithSave(Word word, unsigned save) noexcept { return (word & ~SAVE_MASK) | (Word{save} << SAVE_SHIFT); }

  // The head of a row that nobody else can see yet, as a restore writes it.
  static Word WholeAt(std::uint64_t step) noexcept { return After(0, step); }

 private:
  static Word NextVersion(Word word) noexcept { return (word + VERSION_ONE) & VERSION_MASK; }
  // Never 0: only a head of 0 has step 0, and its version turns 1.
  static Word Writing(Word word) noexcept { return (word & ~(WHOLE | FORGOTTEN | VERSION_MASK)) | NextVersion(word); }
  static Word After(Word word, std::uint64_t step) noexcept {
    return (Word{step} << STEP_SHIFT) | NextVersion(word) | (word & SAVE_MASK) | WHOLE;
  }

  AtomicRef<Word> m_word;
};

}  // namespace Qen
