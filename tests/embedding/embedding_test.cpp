// Properties of single calls that the model does not show: starts, refusals, owners.
#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "embedding/handle.h"
#include "kavo.hpp"

using namespace EmbeddingTest;

namespace {

std::vector<float> StartOf(KavoEmbeddingOptions options, const std::vector<long>& keys) {
  options.expected = 8;
  return Lookup(Make(options), keys, options.dim);
}

// Frozen: what a key starts with may not change between versions, machines or calls. The numbers were computed from the
// definition by another program, in Python, with its own quantile of the normal distribution. The last two keys have
// normal starts at the ends, two deviations from the mean: restricted, not clamped.
TEST(EmbeddingStart, HasKnownValues) {
  KavoEmbeddingOptions options = Defaults(2, KAVO_OPTIMISER_SGD);
  options.seed = 42;
  options.startA = -1;
  options.startB = 1;
  const std::vector<long> keys = {0, -1, std::numeric_limits<long>::min(), 123456789, 14087, 56899};
  const std::vector<float> uniform = StartOf(options, keys);
  options.initialiser = KAVO_START_NORMAL;
  options.startA = 4;
  options.startB = 0.5F;
  const std::vector<float> normal = StartOf(options, keys);
  options.dim = 5;
  EXPECT_EQ(StartOf(options, keys)[6], normal[3]) << "a coordinate's start does not depend on dim";
  const std::vector<float> EXPECTED_UNIFORM = {0.54411298F,   -0.23669754F,  -0.727069497F,  -0.835059762F,
                                               0.223159194F,  -0.522400737F, 0.00770839816F, 0.256131649F,
                                               -0.999999166F, 0.948359191F,  -0.588505089F,  0.999999404F};
  const std::vector<float> EXPECTED_NORMAL = {4.35263348F, 3.85647392F, 3.48818731F, 3.36338401F,
                                              4.13510752F, 3.663831F,   4.00461102F, 4.15568304F,
                                              3.00000381F, 4.83532333F, 3.61244273F, 4.99999714F};
  EXPECT_EQ(uniform, EXPECTED_UNIFORM);
  EXPECT_EQ(normal, EXPECTED_NORMAL);
}

TEST(EmbeddingOwners, AreThoseOfThePartitionMapOverTheUpperHalfOfTheMixedKey) {
  std::vector<long> keys(2000);
  std::iota(keys.begin(), keys.end(), -1000);
  for (const unsigned n : {1U, 2U, 64U, 1023U}) {
    std::vector<unsigned> owners(keys.size());
    Must(KavoOwners(keys.data(), keys.size(), n, owners.data()));
    std::vector<unsigned> ids(n);
    std::iota(ids.begin(), ids.end(), 0U);
    const kavo::PartitionMap map(1, ids);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      ASSERT_EQ(owners[i], map.Owner(static_cast<unsigned long long>(kavo::MixKey(keys[i])) >> 32));
    }
  }
}

// Each refused argument, and what its text says; and that the refused call has done nothing.
TEST(EmbeddingRefusals, NameWhatIsWrong) {
  const auto refusal = [](int status) {
    EXPECT_EQ(status, KAVO_INVALID);
    const std::string text = KavoEmbeddingLastError();
    return text.substr(text.find(": ") + 2);
  };
  KavoEmbeddingOptions right = Defaults(4, KAVO_OPTIMISER_ADAM);
  const auto create = [&](auto change) {
    KavoEmbeddingOptions options = right;
    change(options);
    KavoEmbedding* made = nullptr;
    const std::string text = refusal(KavoEmbeddingCreate(&options, &made));
    EXPECT_EQ(made, nullptr);
    return text;
  };
  const float notANumber = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(create([](auto& o) { o.size = 8; }), "options->size is 8, below " + std::to_string(sizeof(right)));
  EXPECT_EQ(create([](auto& o) { o.dim = 0; }), "dim is 0, not 1 to 65536");
  EXPECT_EQ(create([](auto& o) { o.dim = 65537; }), "dim is 65537, not 1 to 65536");
  EXPECT_EQ(create([](auto& o) { o.optimiser = 6; }), "optimiser is 6");
  EXPECT_EQ(create([](auto& o) { o.initialiser = 4; }), "initialiser is 4");
  EXPECT_EQ(create([&](auto& o) { o.startA = notANumber; }), "startA is nan");
  EXPECT_EQ(create([](auto& o) { o.startB = o.startA; }), "startB is -0.5");
  EXPECT_EQ(create([](auto& o) { o.initialAccumulator = -1; }), "initialAccumulator is -1");
  EXPECT_EQ(create([](auto& o) { o.expected = 4294967295; }), "expected is 4294967295, above 4294967294");
  EXPECT_EQ(create([](auto& o) { o.counts = 2; }), "counts is 2, not 0 or 1");
  EXPECT_EQ(create([](auto& o) { o.growth = 0; }), "growth is 0");
  EXPECT_EQ(create([](auto& o) { o.threads = 1025; }), "threads is 1025, above 1024");
  EXPECT_EQ(create([](auto& o) { o.rates.learningRate = 0; }), "learningRate is 0");
  EXPECT_EQ(create([](auto& o) { o.rates.beta2 = 1; }), "beta2 is 1");
  EXPECT_EQ(create([](auto& o) { o.rates.l1 = HUGE_VAL; }), "l1 is inf");
  EXPECT_EQ(refusal(KavoEmbeddingCreate(&right, nullptr)), "embedding is null");

  const Handle embedding = Make(right);
  const Handle serving = Make(4, KAVO_OPTIMISER_NONE);
  EXPECT_EQ(KavoEmbeddingRowFloats(serving.get()), 4U);
  const long keys[] = {1, 2};
  float rows[8];
  EXPECT_EQ(refusal(KavoEmbeddingLookup(nullptr, keys, 2, 0, nullptr, rows, nullptr)), "embedding is null");
  EXPECT_EQ(refusal(KavoEmbeddingLookup(embedding.get(), nullptr, 2, 0, nullptr, rows, nullptr)), "keys is null");
  EXPECT_EQ(refusal(KavoEmbeddingLookup(embedding.get(), keys, 2, 3, nullptr, rows, nullptr)), "absent is 3");
  EXPECT_EQ(refusal(KavoEmbeddingLookup(embedding.get(), keys, 2, 1, nullptr, rows, nullptr)), "absentRow is null");
  EXPECT_EQ(refusal(KavoEmbeddingForward(embedding.get(), keys, 2, nullptr, nullptr, nullptr)), "rows is null");
  const unsigned occurrences[] = {1, 0};
  EXPECT_EQ(refusal(KavoEmbeddingForward(embedding.get(), keys, 2, occurrences, rows, nullptr)), "occurrences[1] is 0");
  EXPECT_EQ(refusal(KavoEmbeddingBackward(embedding.get(), keys, 2, nullptr, 1, nullptr)), "gradients is null");
  EXPECT_EQ(refusal(KavoEmbeddingBackward(serving.get(), keys, 2, rows, 1, nullptr)), "the embedding has no optimiser");
  KavoRates rates = right.rates;
  rates.eps = -1;
  EXPECT_EQ(refusal(KavoEmbeddingSetRates(embedding.get(), &rates)), "eps is -1");
  const auto bags = [&](unsigned long long middle, unsigned long long last, auto change) {
    const unsigned long long offsets[] = {0, middle, last};
    KavoBags given{sizeof(KavoBags), 2, offsets, nullptr, KAVO_POOL_SUM, 0, 0};
    change(given);
    return refusal(KavoEmbeddingForwardBags(embedding.get(), keys, 2, &given, rows, nullptr));
  };
  const float weights[] = {1, 1};
  EXPECT_EQ(bags(1, 3, [](auto&) {}), "bags->offsets[2], the last, is 3, not num, 2");
  EXPECT_EQ(bags(3, 2, [](auto&) {}), "bags->offsets[2] is 2, below the one before it");
  EXPECT_EQ(bags(1, 2, [](auto& b) { b.pool = 2; }), "bags->pool is 2");
  EXPECT_EQ(bags(1, 2, [](auto& b) { b.hasPadding = 2; }), "bags->hasPadding is 2, not 0 or 1");
  EXPECT_EQ(bags(1, 2, [](auto& b) { b.offsets = nullptr; }), "bags->offsets is null");
  EXPECT_EQ(bags(1, 2,
                 [&](auto& b) {
                   b.pool = KAVO_POOL_MEAN;
                   b.weights = weights;
                 }),
            "bags->weights are given with KAVO_POOL_MEAN");
  unsigned owners[2];
  EXPECT_EQ(refusal(KavoOwners(keys, 2, 0, owners)), "n is 0");
  void* strange = &rates;
  long some[2];
  unsigned long long num = 0;
  EXPECT_EQ(refusal(KavoEmbeddingNextKeys(embedding.get(), &strange, some, 2, &num)),
            "*cursor is no walk of this embedding");
  EXPECT_EQ(StatsOf(embedding).rows + StatsOf(embedding).steps, 0U);
}

}  // namespace
