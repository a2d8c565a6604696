#include "incremental_export/table_restore.h"

#include <fmt/format.h>

#include <cstring>

#include "incremental_export/table_export.h"

namespace IncrementalExport {
namespace {

const char* NameOf(kavo::TableType type) {
  return type == kavo::TableType::FILTER ? "filter" : "basic";
}

void CheckFits(const kavo::Table& table, SnapshotChain& chain) {
  const std::string& path = chain.Files().front().Path();
  if (chain.Type() != table.Type()) {
    throw SnapshotError(path, fmt::format("is of a {} table; table {} is a {} table", NameOf(chain.Type()), table.Id(),
                                          NameOf(table.Type())));
  }
  if (chain.ValueLen() != table.ValueLen()) {
    throw SnapshotError(path, fmt::format("has values of {} bytes; those of table {} have {}", chain.ValueLen(),
                                          table.Id(), table.ValueLen()));
  }
  if (table.CountEntries(false) != 0) {
    throw SnapshotError(path, fmt::format("can be restored into an empty table only; table {} is not", table.Id()));
  }
}

[[noreturn]] void FailTwice(const SnapshotReader& file, long key) {
  throw SnapshotError(file.Path(), fmt::format("holds key {} twice", key));
}

kavo::NewState StateOf(const SnapshotRecord& record) {
  return record.state == ExportState::FULL_ONLY ? kavo::NewState::FULL_ONLY : kavo::NewState::EXPORTED;
}

// False when the key is there.
bool Insert(const kavo::Table& table, const SnapshotRecord& record) {
  return record.admitted ? table.TryInsert(record.key, table.At(record.value), record.count, StateOf(record))
                         : table.TryInsertCounted(record.key, record.count, StateOf(record));
}

// Which records of a full snapshot leave their value in prepared memory, as long as there is some. A value there takes
// the state CHANGED, which marking turns into EXPORTED; FULL_ONLY can only be given by an insert.
class Adoption {
 public:
  explicit Adoption(std::uint64_t prepared) : m_left(prepared) {}
  bool Takes(const SnapshotRecord& record) {
    if (record.state == ExportState::FULL_ONLY || m_left == 0) {
      return false;
    }
    --m_left;
    return true;
  }

 private:
  std::uint64_t m_left;
};

// The full snapshot of a basic table. The file is read twice, because all values must be in place before the first key
// is inserted; that way neither keys nor values are held in between.
void LoadFull(const kavo::Table& table, SnapshotReader& file, RestoreFacts& facts) {
  const std::uint64_t prepared = table.PrepareValues();
  std::uint64_t index = 0;
  ForEachRecord(file, [&, adoption = Adoption(prepared)](const SnapshotRecord& record) mutable {
    if (adoption.Takes(record)) {
      std::memcpy(table.PreparedValue(index++).data(), record.value, table.ValueLen());
    }
  });
  ForEachRecord(file, [&, adoption = Adoption(prepared)](const SnapshotRecord& record) mutable {
    if (adoption.Takes(record)) {
      // One thread inserts, in the order in which it wrote: its i-th new key gets the value of index i.
      const auto [row, created] = table.LookupOrInsert(record.key, 0);
      if (created || std::memcmp(row.data(), record.value, table.ValueLen()) != 0) {
        FailTwice(file, record.key);
      }
      ++facts.adopted;
    } else {
      if (!Insert(table, record)) {
        FailTwice(file, record.key);
      }
      ++facts.inserted;
    }
  });
}

void RestoreBasic(const kavo::Table& table, SnapshotChain& chain, RestoreFacts& facts) {
  std::vector<SnapshotReader>& files = chain.Files();
  LoadFull(table, files.front(), facts);
  for (std::size_t i = 1; i < files.size(); ++i) {
    ForEachRecord(files[i], [&](const SnapshotRecord& record) {
      table.InsertOrUpdate(record.key, table.At(record.value));
      ++facts.overwrote;
    });
  }
  MarkChangedExported(table);
}

void RestoreFilter(const kavo::Table& table, SnapshotChain& chain, RestoreFacts& facts) {
  std::vector<SnapshotReader>& files = chain.Files();
  for (std::size_t i = files.size(); i-- > 0;) {
    ForEachRecord(files[i], [&](const SnapshotRecord& record) {
      const bool inserted = Insert(table, record);
      ++(inserted ? facts.inserted : facts.superseded);
    });
  }
}

}  // namespace

RestoreFacts Restore(const kavo::Table& table, SnapshotChain& chain) {
  CheckFits(table, chain);
  RestoreFacts facts;
  if (table.Type() == kavo::TableType::BASIC) {
    RestoreBasic(table, chain, facts);
  } else {
    RestoreFilter(table, chain, facts);
  }
  return facts;
}

}  // namespace IncrementalExport
