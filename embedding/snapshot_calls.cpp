// The exported functions on snapshots: check the arguments, make the call, and turn failures into statuses and texts.
#include <algorithm>
#include <memory>

#include "embedding/call_support.h"
#include "embedding/loading.h"
#include "embedding/saving.h"
#include "snapshot/table_items.h"

using namespace Qen;

struct KavoSave : Save {
  using Save::Save;
};

namespace {

constexpr std::size_t MOST_NAME_BYTES = 255;
constexpr unsigned MOST_LEVEL = 19;
constexpr unsigned MOST_PARTS = 65'536;

const char* CheckFolder(const char* directory) {
  CheckGiven(directory, "directory");
  if (*directory == '\0') {
    Refuse("directory is empty");
  }
  return directory;
}

SaveOptions CheckSaveOptions(const KavoSaveOptions* options) {
  CheckRoom(options, "options");
  if (options->kind != KAVO_SNAPSHOT_FULL && options->kind != KAVO_SNAPSHOT_INCREMENT) {
    Refuse("options->kind is %u", options->kind);
  }
  if (options->parts < 1 || options->parts > MOST_PARTS) {
    Refuse("options->parts is %u, not 1 to %u", options->parts, MOST_PARTS);
  }
  if (options->compress > MOST_LEVEL) {
    Refuse("options->compress is %u, above %u", options->compress, MOST_LEVEL);
  }
  if (options->compress != 0 && !HasCompression()) {
    Refuse("options->compress is %u, and this build of the library has no zstd", options->compress);
  }
  return {static_cast<SnapshotKind>(options->kind), options->parts, options->keep, static_cast<int>(options->compress)};
}

// Items as the caller knows them: each as long as its size says.
std::vector<NamedItem> CheckItems(const KavoSnapshotItem* items, unsigned num) {
  CheckArray(items, num, "items");
  std::vector<NamedItem> checked;
  const auto* next = reinterpret_cast<const unsigned char*>(items);
  for (unsigned i = 0; i < num; ++i) {
    const auto* const item = reinterpret_cast<const KavoSnapshotItem*>(next);
    if (item->size < sizeof(KavoSnapshotItem)) {
      Refuse("items[%u].size is %llu, below %zu", i, item->size, sizeof(KavoSnapshotItem));
    }
    next += item->size;
    CheckGiven(item->name, "an item's name");
    const std::size_t bytes = std::strlen(item->name);
    if (bytes < 1 || bytes > MOST_NAME_BYTES) {
      Refuse("the name of items[%u] has %zu bytes, not 1 to %zu", i, bytes, MOST_NAME_BYTES);
    }
    for (const NamedItem& other : checked) {
      if (other.name == item->name || (item->embedding != nullptr && other.embedding == item->embedding)) {
        Refuse("items[%u], %s, is given twice", i, item->name);
      }
    }
    checked.push_back({item->name, item->embedding, item->tableId});
  }
  return checked;
}

Bytes CheckBlob(const void* blob, unsigned long long blobBytes) {
  if (blobBytes != 0) {
    CheckGiven(blob, "blob");
  }
  return {static_cast<const unsigned char*>(blob), static_cast<std::size_t>(blobBytes)};
}

void CheckShard(unsigned shard, unsigned shards) {
  if (shard >= shards) {
    Refuse("shard is %u, of %u", shard, shards);
  }
}

std::vector<std::unique_ptr<ItemSource>> SourcesOf(const std::vector<NamedItem>& items) {
  std::vector<std::unique_ptr<ItemSource>> sources;
  for (const NamedItem& item : items) {
    if (item.embedding == nullptr) {
      sources.push_back(std::make_unique<TableSource>(item.name, item.tableId));
    } else {
      sources.push_back(std::make_unique<EmbeddingSource>(item.name, *item.embedding));
    }
  }
  return sources;
}

}  // namespace

int KavoSnapshotBegin(const char* directory, const KavoSaveOptions* options, KavoSave** save) {
  return Serve(__func__, [&] {
    CheckFolder(directory);
    const SaveOptions checked = CheckSaveOptions(options);
    CheckGiven(save, "save");
    *save = new KavoSave(directory, checked);
  });
}

int KavoSnapshotIdentity(const KavoSave* save, unsigned long long* number, unsigned long long* id) {
  return Serve(__func__, [&] {
    CheckGiven(save, "save");
    CheckGiven(number, "number");
    CheckGiven(id, "id");
    save->CheckProcess();
    *number = save->Identity().number;
    *id = save->Identity().id;
  });
}

int KavoSnapshotJoin(const char* directory, const KavoSaveOptions* options, unsigned long long number,
                     unsigned long long id, KavoSave** save) {
  return Serve(__func__, [&] {
    CheckFolder(directory);
    const SaveOptions checked = CheckSaveOptions(options);
    CheckGiven(save, "save");
    if (number == 0 || id == 0) {
      Refuse("number or id is 0");
    }
    *save = new KavoSave(directory, checked, SaveIdentity{number, id});
  });
}

int KavoSnapshotPart(KavoSave* save, unsigned int part, const KavoSnapshotItem* items, unsigned int num,
                     KavoProgress progress, void* context) {
  return Serve(__func__, [&] {
    CheckGiven(save, "save");
    save->CheckProcess();
    if (part >= save->Parts()) {
      Refuse("part is %u, of %u", part, save->Parts());
    }
    const std::vector<NamedItem> checked = CheckItems(items, num);
    Progress toCaller(progress, context);
    save->WritePart(part, SourcesOf(checked), toCaller);
  });
}

int KavoSnapshotCommit(KavoSave* save, const void* blob, unsigned long long blobBytes) {
  const std::unique_ptr<KavoSave> ended(save);
  return Serve(__func__, [&] {
    CheckGiven(save, "save");
    save->CheckProcess();
    save->Commit(CheckBlob(blob, blobBytes));
  });
}

int KavoSnapshotAbort(KavoSave* save) {
  const std::unique_ptr<KavoSave> ended(save);
  return Serve(__func__, [&] {
    if (save != nullptr) {
      save->CheckProcess();
    }
  });
}

int KavoSnapshotSave(const char* directory, const KavoSaveOptions* options, const KavoSnapshotItem* items,
                     unsigned int num, const void* blob, unsigned long long blobBytes, KavoProgress progress,
                     void* context, unsigned long long* number) {
  return Serve(__func__, [&] {
    CheckFolder(directory);
    const SaveOptions checked = CheckSaveOptions(options);
    if (checked.parts != 1) {
      Refuse("options->parts is %u, not 1", checked.parts);
    }
    const std::vector<NamedItem> named = CheckItems(items, num);
    const Bytes bytes = CheckBlob(blob, blobBytes);
    Progress toCaller(progress, context);
    Save save(directory, checked);
    save.WritePart(0, SourcesOf(named), toCaller);
    save.Commit(bytes);
    Give(number, save.Identity().number);
  });
}

int KavoSnapshotFind(const char* directory, unsigned long long number, KavoSnapshotInfo* info) {
  return Serve(__func__, [&] {
    CheckFolder(directory);
    CheckRoom(info, "info");
    const Folder folder(directory);
    const std::vector<Manifest> chain =
        folder.ReadNewest(number, [&](std::uint64_t found) { return ReadChain(folder, found); });
    const Manifest& manifest = chain.front();
    KavoSnapshotInfo all{};
    all.number = manifest.header.identity.number;
    all.full = chain.back().header.identity.number;
    all.bytes = manifest.PartBytes() + manifest.Encode().All().size();
    all.blobBytes = manifest.blob.size();
    all.kind = static_cast<unsigned>(manifest.header.kind);
    all.parts = manifest.header.parts;
    all.items = static_cast<unsigned>(manifest.items.size());
    GiveKnown(all, info);
  });
}

int KavoSnapshotReadBlob(const char* directory, unsigned long long number, void* blob, unsigned long long capacity) {
  return Serve(__func__, [&] {
    CheckFolder(directory);
    const Folder folder(directory);
    const Manifest manifest = folder.ReadNewest(number, [&](std::uint64_t found) { return folder.Read(found); });
    if (capacity < manifest.blob.size()) {
      Refuse("capacity is %llu, and the blob has %zu bytes", capacity, manifest.blob.size());
    }
    if (!manifest.blob.empty()) {
      CheckGiven(blob, "blob");
      std::copy(manifest.blob.begin(), manifest.blob.end(), static_cast<unsigned char*>(blob));
    }
  });
}

int KavoSnapshotLoad(const char* directory, unsigned long long number, const KavoSnapshotItem* items, unsigned int num,
                     unsigned int shard, unsigned int shards, KavoProgress progress, void* context) {
  return Serve(__func__, [&] {
    CheckFolder(directory);
    const std::vector<NamedItem> checked = CheckItems(items, num);
    CheckShard(shard, shards);
    Progress toCaller(progress, context);
    LoadSnapshot(directory, number, checked, shard, shards, toCaller);
  });
}

int KavoSnapshotUpdate(const char* directory, unsigned long long* number, const KavoSnapshotItem* items,
                       unsigned int num, KavoProgress progress, void* context) {
  return Serve(__func__, [&] {
    CheckFolder(directory);
    CheckGiven(number, "number");
    const std::vector<NamedItem> checked = CheckItems(items, num);
    for (const NamedItem& item : checked) {
      if (item.embedding == nullptr) {
        Refuse("%s is a table: only embeddings can be updated", item.name.c_str());
      }
    }
    Progress toCaller(progress, context);
    *number = UpdateFromSnapshots(directory, *number, checked, toCaller);
  });
}
