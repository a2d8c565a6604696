// What is done with one row that others may use at the same time: read it whole, create it, change it.
#pragma once

#include <algorithm>
#include <cstdint>

#include "embedding/row_copy.h"
#include "embedding/row_layout.h"
#include "embedding/start.h"
#include "platform/spin.h"

namespace Qen {

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

}  // namespace Qen
