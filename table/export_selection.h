// Which entries an export takes, by the states in their value headers.
#pragma once

#include "kavo.h"
#include "table/value_header.h"

namespace Qen {

// Whether an entry with this block is due in an export of a mode that has a name; none is in any other mode. A marking
// export counts it as exported from here on.
inline bool IsDue(unsigned mode, unsigned char* block) noexcept {
  switch (mode) {
    case KAVO_EXPORT_ALL:
      return true;
    case KAVO_EXPORT_MARKED:
      return ValueHeader::Load(block) == ValueHeader::EXPORTED;
    case KAVO_EXPORT_UNMARKED_MARK:
      if (ValueHeader::Load(block) != ValueHeader::CHANGED) {
        return false;
      }
      ValueHeader::Store(block, ValueHeader::EXPORTED);
      return true;
    case KAVO_EXPORT_UNMARKED:
      return ValueHeader::Load(block) == ValueHeader::CHANGED;
    default:
      return false;
  }
}

// The highest mode that has a name.
inline constexpr unsigned LAST_EXPORT_MODE = KAVO_EXPORT_UNMARKED;

}  // namespace Qen
