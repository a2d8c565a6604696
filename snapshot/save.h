// A save: begin (or join), parts, commit. What is saved is given to it, item by item.
//
// One thread at a time. The folder's lock is held by whoever began, until the object is destroyed.
#pragma once

#include <map>
#include <memory>
#include <optional>

#include "snapshot/folder.h"
#include "snapshot/progress.h"

namespace Qen {

// Something that can be saved. Made for one part of one save, and lives until its commit.
class ItemSource {
 public:
  ItemSource() = default;
  ItemSource(const ItemSource&) = delete;
  ItemSource& operator=(const ItemSource&) = delete;
  virtual ~ItemSource() = default;

  virtual ItemDescription Description() const = 0;
  // Before anything is read, of all items of a part. Throws Failure when it cannot be saved so.
  virtual void Begin(const FileHeader& header) = 0;
  virtual std::uint64_t ExpectedBytes() const = 0;
  // Adds all records, as item number `item` of the part.
  virtual void Write(PartWriter& writer, std::uint32_t item, Progress& progress) = 0;
  // The snapshot exists now.
  virtual void Committed(const SaveIdentity& identity) noexcept = 0;
};

struct SaveOptions {
  SnapshotKind kind;
  std::uint32_t parts;
  std::uint32_t keep;  // chains; 0: all
  int level;           // of compression; 0: none
};

class Save {
 public:
  // Takes lock and number, and clears the folder.
  Save(const std::string& folder, const SaveOptions& options);
  // Takes part in a save that another process has begun.
  Save(const std::string& folder, const SaveOptions& options, const SaveIdentity& identity);
  Save(const Save&) = delete;
  Save& operator=(const Save&) = delete;
  ~Save();  // gives up what was not committed

  const SaveIdentity& Identity() const noexcept { return m_header.identity; }
  std::uint32_t Parts() const noexcept { return m_options.parts; }
  // Throws KAVO_INVALID in a child of the process that made the save: it is that one's.
  void CheckProcess() const;
  void WritePart(std::uint32_t part, std::vector<std::unique_ptr<ItemSource>> items, Progress& progress);
  void Commit(Bytes blob);

 private:
  void CheckItems(std::uint32_t part, const std::vector<ItemDescription>& items) const;
  void SetFollows(const std::vector<std::uint64_t>& numbers);
  Manifest Assemble(Bytes blob) const;

  Folder m_folder;
  SaveOptions m_options;
  std::optional<FileLock> m_lock;  // not when joined
  const int m_process;
  FileHeader m_header;
  std::optional<Manifest> m_before;                                           // of an increment
  std::map<std::uint32_t, std::vector<std::unique_ptr<ItemSource>>> m_parts;  // that were written here
  bool m_committed = false;
};

}  // namespace Qen
