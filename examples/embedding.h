// Embeddings that end with their handles, and calls of kavo_embedding.h whose failures are exceptions.
#pragma once

#include <kavo_embedding.h>

#include <memory>
#include <stdexcept>

namespace Examples {

inline void Check(int status) {
  if (status != KAVO_SUCCESS) {
    throw std::runtime_error(KavoEmbeddingLastError());
  }
}

struct DestroyEmbedding {
  void operator()(KavoEmbedding* embedding) const { static_cast<void>(KavoEmbeddingDestroy(embedding)); }
};
using Embedding = std::unique_ptr<KavoEmbedding, DestroyEmbedding>;

inline KavoEmbeddingOptions Defaults(unsigned dim, unsigned optimiser) {
  KavoEmbeddingOptions options{};
  Check(KavoEmbeddingDefaults(&options, sizeof(options), dim, optimiser));
  return options;
}

inline Embedding Make(const KavoEmbeddingOptions& options) {
  KavoEmbedding* embedding = nullptr;
  Check(KavoEmbeddingCreate(&options, &embedding));
  return Embedding(embedding);
}

inline KavoEmbeddingStats StatsOf(const Embedding& embedding) {
  KavoEmbeddingStats stats{};
  stats.size = sizeof(stats);
  Check(KavoEmbeddingGetStats(embedding.get(), &stats));
  return stats;
}

inline KavoSnapshotItem Item(const char* name, const Embedding& embedding) {
  return {sizeof(KavoSnapshotItem), name, embedding.get(), 0};
}

// Of the newest snapshot of a folder.
inline KavoSnapshotInfo NewestIn(const char* folder) {
  KavoSnapshotInfo info{};
  info.size = sizeof(info);
  Check(KavoSnapshotFind(folder, 0, &info));
  return info;
}

}  // namespace Examples
