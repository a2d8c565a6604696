// What is done with one row that others may use at the same time: read it whole, create it, change it, forget it, save
// it.
#pragma once

#include <algorithm>
#include <cstdint>

#include "embedding/row_copy.h"
#include "embedding/row_layout.h"
#include "embedding/start.h"
#include "platform/cache_line.h"
#include "platform/prefetch.h"
#include "platform/spin.h"

namespace Qen {

// How many rows ahead of its turn a row is asked for: rows of about 100 bytes take the work on some 24 to arrive.
inline constexpr std::size_t ROWS_AHEAD = 24;

// Asks for the lines of a row, or of its beginning: the processor's own prefetching has the rest. Null is fine.
inline void PrefetchRow(const unsigned char* row, std::size_t bytes) noexcept {
  constexpr std::size_t MOST_BYTES = 512;
  if (row != nullptr) {
    for (std::size_t at = 0; at < std::min(bytes, MOST_BYTES); at += CACHE_LINE_BYTES) {
      PrefetchForRead(row + at);
    }
  }
}

// Those of a block's rows that nobody asks for ahead of their turn.
inline void PrefetchFirstRows(unsigned char* const* rows, std::size_t num, std::size_t bytes) noexcept {
  for (std::size_t i = 0; i < std::min(num, ROWS_AHEAD); ++i) {
    PrefetchRow(rows[i], bytes);
  }
}

// A writer is between two stores: some hundred nanoseconds away, unless it was interrupted.
inline RowHead::Word WaitForWriter(const RowHead& head) noexcept {
  Spinner spinner;
  RowHead::Word word = head.Load();
  while (RowHead::IsBeingWritten(word)) {
    spinner.Pause();
    word = head.Load();
  }
  return word;
}

// Copies `count` floats of a row that is there, all of one moment; false when there is no row. `head` is what it was.
inline bool ReadRow(unsigned char* row, std::size_t count, float* out, RowHead::Word& seen) noexcept {
  const RowHead head(row);
  for (;;) {
    seen = head.Load();
    if (RowHead::IsBeingWritten(seen)) {
      seen = WaitForWriter(head);
    }
    if (!RowHead::HasRow(seen)) {
      return false;
    }
    LoadFloats(RowLayout::Weights(row), out, count);
    if (RowHead::IsSameWrite(seen, SecondReading(head))) {
      return true;
    }
  }
}

// Whether the key has a row; one that is being written has.
inline bool HasRowNow(unsigned char* row) noexcept {
  const RowHead::Word word = RowHead(row).Load();
  return RowHead::HasRow(word) || RowHead::IsBeingWritten(word);
}

// Gives the caller the row for itself: 0 or whole before, `seen` says which. Whoever has it, ends with EndWrite.
template <class Wanted>
bool BeginWrite(RowHead& head, RowHead::Word& seen, const Wanted& wanted) noexcept {
  seen = head.Load();
  for (;;) {
    if (RowHead::IsBeingWritten(seen)) {
      seen = WaitForWriter(head);
    } else if (!wanted(seen)) {
      return false;
    } else if (head.TryBeginWrite(seen)) {
      FenceBeforeFloats();
      return true;
    }
  }
}

// Creates a row of `count` floats that has no start yet, or was forgotten: fill(floats) makes them, in `scratch`. False
// when another thread has created it.
template <class Fill>
bool CreateRow(unsigned char* row, std::size_t count, std::uint64_t number, float* scratch, const Fill& fill) noexcept {
  RowHead head(row);
  RowHead::Word seen = 0;
  if (!BeginWrite(head, seen, [](RowHead::Word word) { return !RowHead::HasRow(word); })) {
    return false;
  }
  fill(scratch);
  StoreFloats(scratch, RowLayout::Weights(row), count);
  head.EndWrite(seen, number);
  return true;
}

// Marks a row as forgotten, if `wanted` says so of its head, 0 or whole; answers whether. A writer that is at work ends
// first, and one that comes later finds the mark: no write takes it back unseen.
template <class Wanted>
bool ForgetRow(unsigned char* row, const Wanted& wanted) noexcept {
  RowHead head(row);
  RowHead::Word seen = head.Load();
  for (;;) {
    if (RowHead::IsBeingWritten(seen)) {
      seen = WaitForWriter(head);
    } else if (!wanted(seen)) {
      return false;
    } else if (head.TryMark(seen, (seen == 0 ? RowHead::WholeAt(1) : seen) | RowHead::FORGOTTEN)) {
      return true;
    }
  }
}

// What a save takes: of a full one all rows, of an increment those whose number is `since` or a later one, and the
// removals of those that were forgotten. What it took bears its mark, so that it takes a row once.
struct RowsToSave {
  bool all;
  std::uint64_t since;
  unsigned mark;
};

enum class Taken { ROW, REMOVAL, NOTHING };

// Whether the row stands in the save now, and as what; a ROW's `count` floats of one moment, and the head that they
// had, are in `floats` and `seen` then. A write between copying and marking changes the head: it is copied again.
inline Taken TakeRow(unsigned char* row, const RowsToSave& save, std::size_t count, float* floats,
                     RowHead::Word& seen) noexcept {
  RowHead head(row);
  seen = head.Load();
  for (;;) {
    if (RowHead::IsBeingWritten(seen)) {
      seen = WaitForWriter(head);
    }
    const bool isNew = save.all || RowHead::Step(seen) >= save.since;
    const bool isForgotten = (seen & RowHead::FORGOTTEN) != 0;
    if (seen == 0 || !isNew || RowHead::Save(seen) == save.mark || (isForgotten && save.all)) {
      return Taken::NOTHING;
    }
    if (!isForgotten && !ReadRow(row, count, floats, seen)) {
      continue;  // forgotten meanwhile
    }
    if (head.TryMark(seen, RowHead::WithSave(seen, save.mark))) {
      return isForgotten ? Taken::REMOVAL : Taken::ROW;
    }
  }
}

}  // namespace Qen
