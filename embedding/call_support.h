// What the exported functions have in common: handles, and structs that begin with their own size.
#pragma once

#include <algorithm>
#include <cstring>

#include "embedding/arguments.h"
#include "embedding/embedding.h"
#include "kavo_embedding.h"

// The handle is the object.
struct KavoEmbedding : Qen::Embedding {
  using Embedding::Embedding;
};

namespace Qen {

template <class Handle>
Handle& CheckHandle(Handle* embedding) {
  CheckGiven(embedding, "embedding");
  return *embedding;
}

inline void Give(unsigned long long* to, unsigned long long value) {
  if (to != nullptr) {
    *to = value;
  }
}

// Fills a struct that begins with its size, as far as the caller knows it.
template <class Struct>
void GiveKnown(Struct all, Struct* to) {
  all.size = std::min<unsigned long long>(to->size, sizeof(Struct));
  std::memcpy(to, &all, static_cast<std::size_t>(all.size));
}

template <class Struct>
void CheckRoom(const Struct* to, const char* name) {
  CheckGiven(to, name);
  if (to->size < sizeof(Struct)) {
    Refuse("%s->size is %llu, below %zu", name, to->size, sizeof(Struct));
  }
}

}  // namespace Qen
