// An embedding for the length of a test, and calls that must succeed: one that does not ends the test.
#pragma once

#include <gtest/gtest.h>
#include <kavo_embedding.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace EmbeddingTest {

struct Destroy {
  void operator()(KavoEmbedding* embedding) const { KavoEmbeddingDestroy(embedding); }
};
using Handle = std::unique_ptr<KavoEmbedding, Destroy>;

inline void Must(int status) {
  if (status != KAVO_SUCCESS) {
    throw std::runtime_error(std::to_string(status) + " " + KavoEmbeddingLastError());
  }
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

inline Handle Make(unsigned dim, unsigned optimiser) {
  return Make(Defaults(dim, optimiser));
}

inline std::vector<float> Lookup(const Handle& embedding, const std::vector<long>& keys, std::size_t dim,
                                 unsigned absent = KAVO_ABSENT_START) {
  std::vector<float> rows(keys.size() * dim);
  Must(KavoEmbeddingLookup(embedding.get(), keys.data(), keys.size(), absent, nullptr, rows.data(), nullptr));
  return rows;
}

inline std::vector<float> Forward(const Handle& embedding, const std::vector<long>& keys, std::size_t dim) {
  std::vector<float> rows(keys.size() * dim);
  Must(KavoEmbeddingForward(embedding.get(), keys.data(), keys.size(), nullptr, rows.data(), nullptr));
  return rows;
}

inline KavoEmbeddingStats StatsOf(const Handle& embedding) {
  KavoEmbeddingStats stats{};
  stats.size = sizeof(stats);
  Must(KavoEmbeddingGetStats(embedding.get(), &stats));
  return stats;
}

// The exit status of a child process that does nothing but work(); -1 when it ends in another way.
template <class Work>
int InAChild(const Work& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(120);  // seconds: one that hangs is ended
    ::_exit(work());
  }
  int status = 0;
  return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace EmbeddingTest
