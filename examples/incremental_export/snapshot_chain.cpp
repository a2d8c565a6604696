#include "incremental_export/snapshot_chain.h"

#include <fmt/format.h>

#include <stdexcept>

namespace IncrementalExport {
namespace {

void CheckBase(const SnapshotReader& file) {
  if (file.Header().kind != SnapshotKind::FULL) {
    throw SnapshotError(file.Path(),
                        fmt::format("is increment {}; a restore begins with a full snapshot", file.Header().sequence));
  }
}

void CheckFollows(const SnapshotReader& file, const SnapshotReader& before) {
  const SnapshotHeader& header = file.Header();
  const SnapshotHeader& previous = before.Header();
  if (header.kind != SnapshotKind::INCREMENT) {
    throw SnapshotError(file.Path(), "is a full snapshot; only the first file of a restore is one");
  }
  if (header.sequence != previous.sequence + 1) {
    throw SnapshotError(file.Path(), fmt::format("is out of sequence: increment {}, but number {} is due after {}",
                                                 header.sequence, previous.sequence + 1, before.Path()));
  }
  if (header.previous != previous.headerChecksum) {
    throw SnapshotError(file.Path(), fmt::format("is increment {} of another chain: it does not follow {}",
                                                 header.sequence, before.Path()));
  }
  if (header.tableType != previous.tableType || header.valueLen != previous.valueLen) {
    throw SnapshotError(file.Path(),
                        fmt::format("is from a table of another kind or value length than {}", before.Path()));
  }
}

}  // namespace

SnapshotChain::SnapshotChain(const std::vector<std::string>& paths) {
  if (paths.empty()) {
    throw std::invalid_argument("a snapshot chain has at least one file");
  }
  for (const std::string& path : paths) {
    m_files.emplace_back(path);
  }
  // The headers of all files, which costs little, then the bodies.
  CheckBase(m_files.front());
  for (std::size_t i = 1; i < m_files.size(); ++i) {
    CheckFollows(m_files[i], m_files[i - 1]);
  }
  for (SnapshotReader& file : m_files) {
    file.Verify();
  }
}

std::uint64_t SnapshotChain::Records() const {
  std::uint64_t records = 0;
  for (const SnapshotReader& file : m_files) {
    records += file.Header().Records();
  }
  return records;
}

std::uint64_t SnapshotChain::Bytes() const {
  std::uint64_t bytes = 0;
  for (const SnapshotReader& file : m_files) {
    bytes += file.Header().FileBytes();
  }
  return bytes;
}

}  // namespace IncrementalExport
