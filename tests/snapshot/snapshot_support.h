// What the tests of snapshots share: a folder for the length of a test, embeddings that train on random batches, and
// the records of a snapshot as a map, which is what two snapshots are compared by.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "embedding/call_support.h"
#include "embedding/handle.h"
#include "embedding/row.h"
#include "snapshot/folder.h"
#include "snapshot/part_reader.h"
#include "support/own_folder.h"

namespace SnapshotTest {

using namespace EmbeddingTest;

inline KavoSnapshotItem Item(const char* name, KavoEmbedding* embedding, unsigned table = 0) {
  return {sizeof(KavoSnapshotItem), name, embedding, table};
}
inline KavoSaveOptions Options(unsigned kind, unsigned parts = 1, unsigned keep = 0, unsigned compress = 0) {
#ifdef KAVO_NO_ZSTD
  compress = 0;
#endif
  return {sizeof(KavoSaveOptions), kind, parts, keep, compress};
}
inline int Save(const std::string& folder, const KavoSaveOptions& options, const KavoSnapshotItem& item,
                const std::string& blob = "", KavoProgress progress = nullptr, void* context = nullptr) {
  return KavoSnapshotSave(folder.c_str(), &options, &item, 1, blob.data(), blob.size(), progress, context, nullptr);
}
inline int Save(const std::string& folder, unsigned kind, KavoEmbedding* embedding, unsigned compress = 0) {
  return Save(folder, Options(kind, 1, 0, compress), Item("rows", embedding));
}
inline int Load(const std::string& folder, const KavoSnapshotItem& item, unsigned shard = 0, unsigned shards = 1,
                unsigned long long number = 0, KavoProgress progress = nullptr, void* context = nullptr) {
  return KavoSnapshotLoad(folder.c_str(), number, &item, 1, shard, shards, progress, context);
}
inline Handle Loaded(const std::string& folder, const KavoEmbeddingOptions& options, unsigned shard = 0,
                     unsigned shards = 1, unsigned long long number = 0) {
  Handle embedding = Make(options);
  Must(Load(folder, Item("rows", embedding.get()), shard, shards, number));
  return embedding;
}
inline std::string BlobOf(const std::string& folder, std::size_t bytes) {
  std::string blob(bytes, 0);
  Must(KavoSnapshotReadBlob(folder.c_str(), 0, blob.data(), bytes));
  return blob;
}
// The name of the first part of snapshot `number`.
inline std::string PartOf(const std::string& folder, unsigned long long number) {
  const Qen::Folder snapshots(folder);
  const std::string path = snapshots.PartPath(snapshots.Read(number).header.identity, 0);
  return std::filesystem::path(path).filename();
}
inline long FilesIn(const std::string& folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}

// Of an embedding that soon grows, in one thread.
inline KavoEmbeddingOptions Small(unsigned optimiser, unsigned admission = 0) {
  KavoEmbeddingOptions options = Defaults(2, optimiser);
  options.expected = 8;
  options.admission = admission;
  options.threads = 1;
  return options;
}

// Item, type of block, key: the rest of the record. A record that stands there twice is a failure.
using Records = std::map<std::tuple<std::string, unsigned, long>, std::string>;

inline Records RecordsOf(const std::string& path) {
  const Qen::Folder folder(path);
  const Qen::Manifest manifest = folder.Read(folder.Newest());
  Records records;
  for (unsigned part = 0; part < manifest.parts.size(); ++part) {
    const Qen::PartReader reader(folder.PartPath(manifest.header.identity, part));
    const Qen::File file = reader.Open();
    std::vector<unsigned char> stored;
    std::vector<unsigned char> raw;
    for (const auto& block : reader.Blocks()) {
      const Qen::ItemDescription& item = reader.Items()[block.header.item];
      const std::size_t bytes = item.RecordBytes(block.header.type);
      const Qen::Bytes all = reader.Read(file, block, stored, raw);
      for (std::size_t at = 0; at < all.size(); at += bytes) {
        long key = 0;
        std::memcpy(&key, &all[at], sizeof(key));
        const Records::key_type name(item.name, static_cast<unsigned>(block.header.type), key);
        const bool isNew = records.try_emplace(name, &all[at] + sizeof(key), &all[at] + bytes).second;
        EXPECT_TRUE(isNew) << "key " << key << " twice";
      }
    }
  }
  return records;
}

// What an embedding is: a full snapshot of it, while nothing else goes on.
inline Records Contents(KavoEmbedding* embedding) {
  const OwnFolder folder;
  // A save by itself would change what the next increment follows.
  const Qen::SaveIdentity last = embedding->Snapshots().last;
  const std::uint64_t cut = embedding->Snapshots().cut;
  Must(Save(folder.Path(), KAVO_SNAPSHOT_FULL, embedding));
  embedding->Snapshots().last = last;
  embedding->Snapshots().cut = cut;
  return RecordsOf(folder.Path());
}

// Batches of keys of which half are negative and some come often.
class Trainer {
 public:
  explicit Trainer(unsigned long seed) : m_random(seed) {}

  // Keys that belong to `shard` of `shards`.
  void Step(KavoEmbedding* embedding, std::size_t num, unsigned shard = 0, unsigned shards = 1) {
    std::vector<long> keys;
    while (keys.size() < num) {
      const long key = static_cast<long>(std::exp2(std::uniform_real_distribution<>(0, 12)(m_random)));
      keys.push_back(m_random() % 2 == 0 ? key : -key);
      if (Qen::OwnerOf(Qen::TagOf(keys.back()), shards) != shard) {
        keys.pop_back();
      }
    }
    const std::size_t dim = embedding->Layout().Dim();
    std::vector<float> rows(num * dim);
    Must(KavoEmbeddingForward(embedding, keys.data(), num, nullptr, rows.data(), nullptr));
    if (embedding->Trains()) {
      for (float& gradient : rows) {
        gradient = std::uniform_real_distribution<float>(-1, 1)(m_random);
      }
      // Not all of them: a row may be created and not trained.
      Must(KavoEmbeddingBackward(embedding, keys.data(), num / 2, rows.data(), 1, nullptr));
    }
  }
  // Marks the row of a key that it answers as forgotten, as of the step to come.
  long Forget(KavoEmbedding* embedding) {
    for (;;) {
      const long key = static_cast<long>(m_random() % 4096);
      const Qen::Tag tag = Qen::TagOf(key);
      unsigned char* row = nullptr;
      Must(embedding->Tables().Find(&tag, 1, &row));
      if (row != nullptr && Qen::HasRowNow(row)) {
        Qen::RowHead head(row);
        Qen::RowHead::Word seen = head.Load();
        head.EndWrite(seen, embedding->Clock().Steps() + 1);
        seen = head.Load();
        EXPECT_TRUE(head.TryMark(seen, seen | Qen::RowHead::FORGOTTEN));
        embedding->CountRows(0, 1);
        return key;
      }
    }
  }

 private:
  std::mt19937_64 m_random;
};

}  // namespace SnapshotTest
