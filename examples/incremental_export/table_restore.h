// Brings a table back from a snapshot chain.
//
// A basic table is restored oldest file first. The full snapshot's values are written into the table's own memory,
// which the keys then adopt (KavoPrepareMemForValues); increments go over it by KavoInsertOrUpdate.
//
// A filter table is restored newest file first, every record by KavoInsert. A key's count and its admission can only be
// set when the key is created, by an insert with the count and with or without a value. So the first file to bring a
// key must be the one that knows it best; KavoInsert leaves alone what newer files brought. (Adding up counts oldest
// first would need the count that a key has now, and would admit keys by the table's present frequency rather than by
// what happened.)
//
// Either way every entry ends in the state that the exported table had after the last file: the restored table can be
// exported from there on, by a TableExport that begins with the last file's header.
#pragma once

#include <kavo.hpp>
#include "incremental_export/snapshot_chain.h"

namespace IncrementalExport {

struct RestoreFacts {
  std::uint64_t adopted = 0;     // records whose value was written before its key was inserted
  std::uint64_t inserted = 0;    // records that made an entry by an insert
  std::uint64_t overwrote = 0;   // records of basic tables' increments, which may have made an entry
  std::uint64_t superseded = 0;  // records of filter tables that a newer file had overtaken
};

// The table must be empty and of the chain's type and value length, or SnapshotError is thrown and the table left as it
// was. For speed, make it for as many entries as the full snapshot has. No other thread may use it meanwhile. Any later
// failure (no memory, a file that is changed in place just now) leaves the table part loaded: destroy it.
RestoreFacts Restore(const kavo::Table& table, SnapshotChain& chain);

}  // namespace IncrementalExport
