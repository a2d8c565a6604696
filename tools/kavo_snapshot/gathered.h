// What an item is at a snapshot, gathered from all of its chain: each key once, with its last record.
//
// Keys are kept in memory, records are not: some 40 bytes a key.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "snapshot/load.h"

namespace KavoSnapshot {

// A snapshot of a folder, as a command line names it: FOLDER for the newest, or FOLDER@NUMBER.
struct Place {
  explicit Place(const std::string& text);
  std::string folder;
  std::uint64_t number = 0;
};

// A snapshot with its chain, newest first; all files have been looked through for their structure.
struct Chain {
  explicit Chain(const Place& place);
  const Qen::Manifest& Newest() const { return snapshots.front().manifest; }

  std::vector<Qen::Snapshot> snapshots;
};

// A key of an item: with a row (or value), or only counted. `record` is laid out as `description` says.
struct Entry {
  long key;
  Qen::BlockType type;
  const Qen::ItemDescription& description;
  Qen::Bytes record;
};
using Visit = std::function<void(const Entry& entry)>;

void ForEachEntry(const Chain& chain, const std::string& item, const Visit& visit);

}  // namespace KavoSnapshot
