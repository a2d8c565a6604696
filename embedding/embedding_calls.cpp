// The exported functions on embeddings: check the arguments, make the call, and turn failures into statuses and texts.
#include <cmath>
#include <cstring>

#include "embedding/arguments.h"
#include "embedding/call_support.h"
#include "kavo_embedding.h"
#include "snapshot/failure.h"

using namespace Qen;

namespace {

KavoEmbedding& CheckTrains(KavoEmbedding* embedding) {
  KavoEmbedding& handle = CheckHandle(embedding);
  if (!handle.Trains()) {
    Refuse("the embedding has no optimiser");
  }
  return handle;
}

void CheckOccurrences(const unsigned* occurrences, unsigned long long num) {
  for (unsigned long long i = 0; occurrences != nullptr && i < num; ++i) {
    if (occurrences[i] == 0) {
      Refuse("occurrences[%llu] is 0", i);
    }
  }
}

}  // namespace

const char* KavoEmbeddingLastError(void) {
  return LastText();
}

int KavoEmbeddingDefaults(KavoEmbeddingOptions* options, unsigned long long size, unsigned int dim,
                          unsigned int optimiser) {
  return Serve(__func__, [&] {
    CheckGiven(options, "options");
    if (size < sizeof(KavoEmbeddingOptions)) {
      Refuse("size is %llu, below %zu", size, sizeof(KavoEmbeddingOptions));
    }
    KavoEmbeddingOptions made{};
    made.size = sizeof(made);
    made.dim = dim;
    made.optimiser = optimiser;
    made.initialiser = KAVO_START_UNIFORM;
    made.startB = dim == 0 ? 1 : static_cast<float>(1 / std::sqrt(static_cast<double>(dim)));
    made.startA = -made.startB;
    made.seed = 1;
    made.expected = 1'000'000;
    made.growth = KAVO_REHASH_WHOLE_TABLE;
    const bool adam = optimiser == KAVO_OPTIMISER_ADAM;
    const bool adagrad = optimiser == KAVO_OPTIMISER_ADAGRAD || optimiser == KAVO_OPTIMISER_ROWWISE_ADAGRAD;
    made.rates.size = sizeof(made.rates);
    made.rates.learningRate = adam ? 0.001 : adagrad ? 0.01 : optimiser == KAVO_OPTIMISER_FTRL ? 0.1 : 0.01;
    made.rates.eps = adam ? 1e-8 : 1e-10;
    made.rates.beta1 = 0.9;
    made.rates.beta2 = 0.999;
    made.rates.ftrlBeta = 1;
    made = CheckOptions(&made);
    made.size = size;
    std::memset(options, 0, static_cast<std::size_t>(size));  // fields that this library does not know
    std::memcpy(options, &made, sizeof(made));
  });
}

int KavoEmbeddingCreate(const KavoEmbeddingOptions* options, KavoEmbedding** embedding) {
  return Serve(__func__, [&] {
    const KavoEmbeddingOptions checked = CheckOptions(options);
    CheckGiven(embedding, "embedding");
    *embedding = new KavoEmbedding(checked);
  });
}

int KavoEmbeddingDestroy(KavoEmbedding* embedding) {
  return Serve(__func__, [&] { delete embedding; });
}

int KavoEmbeddingGetOptions(const KavoEmbedding* embedding, KavoEmbeddingOptions* options) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    CheckRoom(options, "options");
    GiveKnown(embedding->Options(), options);
  });
}

int KavoEmbeddingLookup(const KavoEmbedding* embedding, const long* keys, unsigned long long num, unsigned int absent,
                        const float* absentRow, float* rows, unsigned char* found) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    const auto batch = CheckKeys(keys, num);
    CheckAbsent(absent, absentRow);
    CheckArray(rows, num, "rows");
    embedding->Lookup(batch, {absent, absentRow}, rows, found);
  });
}

int KavoEmbeddingForward(KavoEmbedding* embedding, const long* keys, unsigned long long num,
                         const unsigned int* occurrences, float* rows, unsigned long long* withoutRow) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    const auto batch = CheckKeys(keys, num);
    CheckOccurrences(occurrences, num);
    CheckArray(rows, num, "rows");
    Give(withoutRow, embedding->Forward(batch, occurrences, rows));
  });
}

int KavoEmbeddingBackward(KavoEmbedding* embedding, const long* keys, unsigned long long num, const float* gradients,
                          float scale, unsigned long long* passedOver) {
  return Serve(__func__, [&] {
    KavoEmbedding& handle = CheckTrains(embedding);
    const auto batch = CheckKeys(keys, num);
    CheckArray(gradients, num, "gradients");
    Give(passedOver, handle.Backward(batch, gradients, scale));
  });
}

int KavoEmbeddingLookupBags(const KavoEmbedding* embedding, const long* keys, unsigned long long num,
                            const KavoBags* bags, unsigned int absent, const float* absentRow, float* pooled) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    const auto batch = CheckKeys(keys, num);
    const KavoBags checked = CheckBags(bags, num);
    CheckAbsent(absent, absentRow);
    CheckArray(pooled, checked.num, "pooled");
    embedding->LookupBags(batch, checked, {absent, absentRow}, pooled);
  });
}

int KavoEmbeddingForwardBags(KavoEmbedding* embedding, const long* keys, unsigned long long num, const KavoBags* bags,
                             float* pooled, unsigned long long* withoutRow) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    const auto batch = CheckKeys(keys, num);
    const KavoBags checked = CheckBags(bags, num);
    CheckArray(pooled, checked.num, "pooled");
    Give(withoutRow, embedding->ForwardBags(batch, checked, pooled));
  });
}

int KavoEmbeddingBackwardBags(KavoEmbedding* embedding, const long* keys, unsigned long long num, const KavoBags* bags,
                              const float* gradients, float scale, float* weightGradients,
                              unsigned long long* passedOver) {
  return Serve(__func__, [&] {
    KavoEmbedding& handle = CheckTrains(embedding);
    const auto batch = CheckKeys(keys, num);
    const KavoBags checked = CheckBags(bags, num);
    CheckArray(gradients, checked.num, "gradients");
    if (weightGradients != nullptr && checked.weights == nullptr) {
      Refuse("weightGradients are asked for without bags->weights");
    }
    Give(passedOver, handle.BackwardBags(batch, checked, gradients, scale, weightGradients));
  });
}

int KavoEmbeddingSetRates(KavoEmbedding* embedding, const KavoRates* rates) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    CheckGiven(rates, "rates");
    CheckRates(*rates);
    embedding->SetRates(*rates);
  });
}

unsigned long long KavoEmbeddingRowFloats(const KavoEmbedding* embedding) {
  return embedding == nullptr ? 0 : embedding->Layout().Floats();
}

int KavoEmbeddingGetRows(const KavoEmbedding* embedding, const long* keys, unsigned long long num, float* rows,
                         unsigned long long* steps, unsigned char* found) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    const auto batch = CheckKeys(keys, num);
    CheckArray(rows, num, "rows");
    embedding->GetRows(batch, rows, steps, found);
  });
}

int KavoEmbeddingSetRows(KavoEmbedding* embedding, const long* keys, unsigned long long num, const float* rows) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    const auto batch = CheckKeys(keys, num);
    CheckArray(rows, num, "rows");
    embedding->SetRows(batch, rows);
  });
}

int KavoEmbeddingNextKeys(KavoEmbedding* embedding, void** cursor, long* keys, unsigned long long capacity,
                          unsigned long long* num) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    CheckGiven(cursor, "cursor");
    CheckGiven(keys, "keys");
    CheckGiven(num, "num");
    if (capacity == 0) {
      Refuse("capacity is 0");
    }
    *num = embedding->NextKeys(*cursor, {keys, static_cast<std::size_t>(capacity)});
  });
}

int KavoEmbeddingGetStats(const KavoEmbedding* embedding, KavoEmbeddingStats* stats) {
  return Serve(__func__, [&] {
    CheckHandle(embedding);
    CheckRoom(stats, "stats");
    KavoEmbeddingStats all{};
    embedding->AddStats(all);
    GiveKnown(all, stats);
  });
}

int KavoOwners(const long* keys, unsigned long long num, unsigned int n, unsigned int* owners) {
  return Serve(__func__, [&] {
    CheckArray(keys, num, "keys");
    CheckArray(owners, num, "owners");
    if (n == 0) {
      Refuse("n is 0");
    }
    for (unsigned long long i = 0; i < num; ++i) {
      owners[i] = OwnerOf(TagOf(keys[i]), n);
    }
  });
}
