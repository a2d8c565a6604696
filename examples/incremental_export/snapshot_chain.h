// A full snapshot and the increments that follow it, opened together. A chain that exists is whole and in order: every
// byte of every file was checked before the constructor returned.
#pragma once

#include <string>
#include <vector>

#include "incremental_export/snapshot_reader.h"

namespace IncrementalExport {

class SnapshotChain {
 public:
  // The full snapshot first, then its increments 1, 2, ... Throws SnapshotError.
  explicit SnapshotChain(const std::vector<std::string>& paths);

  kavo::TableType Type() const { return m_files.front().Header().tableType; }
  std::uint32_t ValueLen() const { return m_files.front().Header().valueLen; }
  std::uint64_t Records() const;
  std::uint64_t Bytes() const;

  std::vector<SnapshotReader>& Files() { return m_files; }

 private:
  std::vector<SnapshotReader> m_files;  // never empty
};

}  // namespace IncrementalExport
