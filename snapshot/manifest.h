// The manifest of a snapshot: which files it consists of, what is in them, what it follows, and the caller's bytes.
// Where it stands in the folder, the snapshot exists.
#pragma once

#include "snapshot/part_writer.h"

namespace Qen {

struct Manifest {
  struct Item {
    ItemDescription description;
    ItemTotals totals;
  };

  FileHeader header;
  std::vector<PartSeal> parts;
  std::vector<Item> items;
  std::vector<unsigned char> blob;

  const Item* Find(const std::string& name) const noexcept;
  std::uint64_t PartBytes() const noexcept;

  ByteWriter Encode() const;
  // Refuses what is not a whole manifest; `file` names it.
  static Manifest Decode(Bytes bytes, const std::string& file);
};

}  // namespace Qen
