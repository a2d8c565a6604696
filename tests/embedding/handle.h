// An embedding for the length of a test, and calls that must succeed.
#pragma once

#include <gtest/gtest.h>
#include <kavo_embedding.h>

#include <memory>

namespace EmbeddingTest {

struct Destroy {
  void operator()(KavoEmbedding* embedding) const { KavoEmbeddingDestroy(embedding); }
};
using Handle = std::unique_ptr<KavoEmbedding, Destroy>;

inline void Must(int status) {
  ASSERT_EQ(status, KAVO_SUCCESS) << KavoEmbeddingLastError();
}

inline KavoEmbeddingOptions Defaults(unsigned dim, unsigned optimiser) {
  KavoEmbeddingOptions options{};
  Must(KavoEmbeddingDefaults(&options, sizeof(options), dim, optimiser));
  return options;
}

inline Handle Make(const KavoEmbeddingOptions& options) {
  KavoEmbedding* embedding = nullptr;
  Must(KavoEmbeddingCreate(&options, &embedding));
  return Handle(embedding);
}

}  // namespace EmbeddingTest
