#include "snapshot/save.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "snapshot/part_reader.h"

namespace Qen {
namespace {

std::uint64_t RandomId() {
  std::uint64_t id = 0;
  while (id == 0) {
    if (::getrandom(&id, sizeof(id), 0) != sizeof(id) && errno != EINTR) {
      throw Failure(KAVO_IO_ERROR, "no random number: " + std::generic_category().message(errno));
    }
  }
  return id;
}

}  // namespace

Save::Save(const std::string& folder, const SaveOptions& options)
    : m_folder(folder), m_options(options), m_process(::getpid()) {
  MakeFolder(folder);
  m_lock.emplace(m_folder.LockPath());
  if (!m_lock->IsHeld()) {
    Fail(KAVO_BUSY, "%s: another save is under way", folder.c_str());
  }
  m_folder.Clear();
  const std::vector<std::uint64_t> numbers = m_folder.Numbers();
  m_header = {options.kind, {numbers.empty() ? 1 : numbers.back() + 1, RandomId()}, {}, options.parts};
  SetFollows(numbers);
}

Save::Save(const std::string& folder, const SaveOptions& options, const SaveIdentity& identity)
    : m_folder(folder), m_options(options), m_process(::getpid()), m_header{options.kind, identity, {}, options.parts} {
  std::vector<std::uint64_t> numbers = m_folder.Numbers();
  std::erase_if(numbers, [&](std::uint64_t number) { return number >= identity.number; });
  SetFollows(numbers);
}

void Save::SetFollows(const std::vector<std::uint64_t>& numbers) {
  if (m_options.kind == SnapshotKind::INCREMENT) {
    if (numbers.empty()) {
      Fail(KAVO_INVALID, "%s: there is no snapshot that an increment could follow", m_folder.Path().c_str());
    }
    m_before = m_folder.Read(numbers.back());
    m_header.follows = m_before->header.identity;
  }
}

Save::~Save() {
  if (!m_committed && m_lock && m_lock->IsHeld()) {
    try {
      m_folder.Clear();
    } catch (const std::exception&) {  // the next save does it
    }
  }
}

void Save::CheckProcess() const {
  if (m_process != ::getpid()) {
    Fail(KAVO_INVALID, "the save is that of the process that has forked this one");
  }
}

// What an increment holds must fit what it follows.
void Save::CheckItems(std::uint32_t part, const std::vector<ItemDescription>& items) const {
  for (const ItemDescription& item : items) {
    if (std::count_if(items.begin(), items.end(), [&](const auto& other) { return other.name == item.name; }) != 1) {
      Fail(KAVO_INVALID, "part %u: two items have the name %s", part, item.name.c_str());
    }
    if (m_before) {
      const Manifest::Item* const before = m_before->Find(item.name);
      if (before == nullptr || !item.CanFollow(before->description)) {
        Fail(KAVO_INVALID, "%s: was not in snapshot %llu, or as something else: save a full snapshot first",
             item.name.c_str(), static_cast<unsigned long long>(m_header.follows.number));
      }
    }
  }
}

void Save::WritePart(std::uint32_t part, std::vector<std::unique_ptr<ItemSource>> items, Progress& progress) {
  m_parts.erase(part);  // written again
  std::vector<ItemDescription> descriptions;
  for (const auto& item : items) {
    descriptions.push_back(item->Description());
  }
  CheckItems(part, descriptions);
  for (const auto& item : items) {
    item->Begin(m_header);
    progress.Expect(item->ExpectedBytes());
  }
  PartWriter writer(m_folder.PartPath(m_header.identity, part), m_header, part, std::move(descriptions),
                    m_options.level);
  for (std::uint32_t i = 0; i < items.size(); ++i) {
    items[i]->Write(writer, i, progress);
  }
  writer.Finish();
  SyncFolder(m_folder.Path());
  m_parts[part] = std::move(items);
}

Manifest Save::Assemble(Bytes blob) const {
  Manifest manifest;
  manifest.header = m_header;
  manifest.blob.assign(blob.begin(), blob.end());
  for (std::uint32_t i = 0; i < m_options.parts; ++i) {
    const PartReader part(m_folder.PartPath(m_header.identity, i));
    manifest.parts.push_back(part.Seal());
    for (std::size_t item = 0; i == 0 && item < part.Items().size(); ++item) {
      manifest.items.push_back({part.Items()[item], {}});
    }
    part.CheckBelongs(manifest, i);
    for (std::size_t item = 0; item < manifest.items.size(); ++item) {
      ItemTotals& sum = manifest.items[item].totals;
      const ItemTotals& more = part.Totals()[item];
      sum = {sum.rows + more.rows, sum.counted + more.counted, sum.removed + more.removed,
             std::max(sum.steps, more.steps)};
    }
  }
  return manifest;
}

void Save::Commit(Bytes blob) {
  if (m_lock) {
    m_folder.Publish(Assemble(blob));
  } else if (m_folder.Read(m_header.identity.number).header != m_header) {
    Fail(KAVO_INVALID, "snapshot %llu is of another save", static_cast<unsigned long long>(Identity().number));
  }
  m_committed = true;
  for (auto& [part, items] : m_parts) {
    for (const auto& item : items) {
      item->Committed(m_header.identity);
    }
  }
  if (m_lock && m_options.keep != 0) {
    try {
      m_folder.DeleteOldChains(m_options.keep);
    } catch (const std::exception&) {  // the snapshot exists; the next commit deletes them
    }
  }
}

}  // namespace Qen
