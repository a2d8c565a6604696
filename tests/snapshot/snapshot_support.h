// What the tests of snapshots share: a folder for the length of a test, embeddings that train on random batches, and
// the records of a snapshot as a map, which is what two snapshots are compared by.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
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

namespace SnapshotTest {

using EmbeddingTest::Handle;
using EmbeddingTest::Must;

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kavo-snapshot-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      ADD_FAILURE() << pattern;
    }
    m_path = pattern;
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  std::string operator/(const std::string& name) const { return (m_path / name).string(); }
  const std::string Path() const { return m_path.string(); }

 private:
  std::filesystem::path m_path;
};

inline std::string Slurp(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}
inline void Spill(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline KavoSnapshotItem Item(const char* name, KavoEmbedding* embedding, unsigned table = 0) {
  return {sizeof(KavoSnapshotItem), name, embedding, table};
}
inline KavoSaveOptions Options(unsigned kind, unsigned parts = 1, unsigned keep = 0, unsigned compress = 0) {
  return {sizeof(KavoSaveOptions), kind, parts, keep, compress};
}
inline int Save(const std::string& folder, unsigned kind, KavoEmbedding* embedding, unsigned compress = 0) {
  const KavoSnapshotItem item = Item("rows", embedding);
  const KavoSaveOptions options = Options(kind, 1, 0, compress);
  return KavoSnapshotSave(folder.c_str(), &options, &item, 1, nullptr, 0, nullptr, nullptr, nullptr);
}
inline int Load(const std::string& folder, KavoEmbedding* embedding, unsigned shard = 0, unsigned shards = 1,
                unsigned long long number = 0) {
  const KavoSnapshotItem item = Item("rows", embedding);
  return KavoSnapshotLoad(folder.c_str(), number, &item, 1, shard, shards, nullptr, nullptr);
}

// Item, type of block, key: the rest of the record. A record that stands there twice is a failure.
using Records = std::map<std::tuple<std::string, unsigned, long>, std::string>;

inline Records RecordsOf(const std::string& path, unsigned long long number = 0) {
  const Qen::Folder folder(path);
  const Qen::Manifest manifest = folder.Read(number);
  Records records;
  for (unsigned part = 0; part < manifest.parts.size(); ++part) {
    const Qen::PartReader reader(folder.PartPath(manifest.header.identity.number, part));
    std::vector<unsigned char> stored;
    std::vector<unsigned char> raw;
    for (const auto& block : reader.Blocks()) {
      const Qen::ItemDescription& item = reader.Items()[block.header.item];
      const std::size_t bytes = item.RecordBytes(block.header.type);
      const Qen::Bytes all = reader.Read(block, stored, raw);
      for (std::size_t at = 0; at < all.size(); at += bytes) {
        long key = 0;
        std::memcpy(&key, &all[at], sizeof(key));
        const bool isNew = records
                               .emplace(std::make_tuple(item.name, static_cast<unsigned>(block.header.type), key),
                                        std::string(&all[at] + sizeof(key), &all[at] + bytes))
                               .second;
        EXPECT_TRUE(isNew) << "key " << key << " twice";
      }
    }
  }
  return records;
}

// What an embedding is: a full snapshot of it.
inline Records Contents(KavoEmbedding* embedding) {
  const TempFolder folder;
  // A save by itself would change what the next increment follows.
  const Qen::SaveIdentity last = embedding->Snapshots().last;
  const std::uint64_t cut = embedding->Snapshots().cut;
  Must(Save(folder.Path(), KAVO_SNAPSHOT_FULL, embedding));
  embedding->Snapshots().last = last;
  embedding->Snapshots().cut = cut;
  return RecordsOf(folder.Path());
}

inline unsigned char* RowOf(KavoEmbedding* embedding, long key) {
  const Qen::Tag tag = Qen::TagOf(key);
  unsigned char* row = nullptr;
  Must(embedding->Tables().Find(&tag, 1, &row));
  return row;
}

// Marks the row of a key as forgotten, as of the step to come.
inline void Forget(KavoEmbedding* embedding, long key) {
  unsigned char* const row = RowOf(embedding, key);
  ASSERT_NE(row, nullptr);
  Qen::RowHead head(row);
  Qen::RowHead::Word seen = head.Load();
  head.EndWrite(seen, embedding->Clock().Steps() + 1);
  seen = head.Load();
  ASSERT_TRUE(head.TryMark(seen, seen | Qen::RowHead::FORGOTTEN));
  embedding->CountRows(0, 1);
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
  // A key that has a row.
  long AnyKey(KavoEmbedding* embedding) {
    for (;;) {
      const long key = static_cast<long>(m_random() % 4096);
      unsigned char* const row = RowOf(embedding, key);
      if (row != nullptr && Qen::HasRowNow(row)) {
        return key;
      }
    }
  }

 private:
  std::mt19937_64 m_random;
};

}  // namespace SnapshotTest
