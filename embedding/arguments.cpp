#include "embedding/arguments.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "snapshot/failure.h"

namespace Qen {
namespace {

constexpr unsigned MAX_DIM = 65'536;
constexpr unsigned MAX_THREADS = 1024;
constexpr unsigned long long MAX_EXPECTED = 4'294'967'294;

void CheckRange(double value, const char* name, double least, bool leastIsIn, double below = HUGE_VAL) {
  if (!std::isfinite(value) || value < least || (value == least && !leastIsIn) || value >= below) {
    Refuse("%s is %g", name, value);
  }
}

// A struct that begins with its size: what the caller knows of it.
template <class Struct>
Struct TakeKnown(const Struct* given, std::size_t firstVersion, const char* name) {
  CheckGiven(given, name);
  if (given->size < firstVersion) {
    Refuse("%s->size is %llu, below %zu", name, given->size, firstVersion);
  }
  Struct known{};
  std::memcpy(&known, given, std::min<std::size_t>(given->size, sizeof(Struct)));
  return known;
}

}  // namespace

void Refuse(const char* format, ...) {
  char text[512];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  throw Failure(KAVO_INVALID, text);
}

std::span<const long> CheckKeys(const long* keys, unsigned long long num) {
  CheckArray(keys, num, "keys");
  if (num > 0xFFFFFFFF) {
    Refuse("num is %llu, above 4294967295", num);
  }
  return {keys, static_cast<std::size_t>(num)};
}

void CheckRates(const KavoRates& rates) {
  if (rates.size < sizeof(KavoRates)) {
    Refuse("rates.size is %llu, below %zu", rates.size, sizeof(KavoRates));
  }
  // As floats: rows are worked on in them.
  CheckRange(static_cast<float>(rates.learningRate), "learningRate", 0, false);
  CheckRange(static_cast<float>(rates.weightDecay), "weightDecay", 0, true);
  CheckRange(static_cast<float>(rates.eps), "eps", 0, true);
  CheckRange(static_cast<float>(rates.beta1), "beta1", 0, true, 1);
  CheckRange(static_cast<float>(rates.beta2), "beta2", 0, true, 1);
  CheckRange(static_cast<float>(rates.ftrlBeta), "ftrlBeta", 0, true);
  CheckRange(static_cast<float>(rates.l1), "l1", 0, true);
  CheckRange(static_cast<float>(rates.l2), "l2", 0, true);
}

void CheckStart(const KavoEmbeddingOptions& options) {
  if (options.initialiser > KAVO_START_NORMAL) {
    Refuse("initialiser is %u", options.initialiser);
  }
  if (options.initialiser != KAVO_START_ZEROS) {
    CheckRange(options.startA, "startA", -HUGE_VAL, true);
  }
  if (options.initialiser == KAVO_START_UNIFORM) {
    CheckRange(options.startB, "startB", options.startA, false);
  }
  if (options.initialiser == KAVO_START_NORMAL) {
    CheckRange(options.startB, "startB", 0, true);
  }
  CheckRange(options.initialAccumulator, "initialAccumulator", 0, true);
}

KavoEmbeddingOptions CheckOptions(const KavoEmbeddingOptions* options) {
  const KavoEmbeddingOptions known = TakeKnown(options, sizeof(KavoEmbeddingOptions), "options");
  if (known.dim < 1 || known.dim > MAX_DIM) {
    Refuse("dim is %u, not 1 to %u", known.dim, MAX_DIM);
  }
  if (known.optimiser > KAVO_OPTIMISER_FTRL) {
    Refuse("optimiser is %u", known.optimiser);
  }
  CheckStart(known);
  if (known.expected > MAX_EXPECTED) {
    Refuse("expected is %llu, above %llu", known.expected, MAX_EXPECTED);
  }
  if (known.counts > 1) {
    Refuse("counts is %u, not 0 or 1", known.counts);
  }
  if (known.growth != KAVO_REHASH_GRADUAL && known.growth != KAVO_REHASH_WHOLE_TABLE) {
    Refuse("growth is %u", known.growth);
  }
  if (known.threads > MAX_THREADS) {
    Refuse("threads is %u, above %u", known.threads, MAX_THREADS);
  }
  CheckRates(known.rates);
  return known;
}

KavoBags CheckBags(const KavoBags* bags, unsigned long long num) {
  const KavoBags known = TakeKnown(bags, sizeof(KavoBags), "bags");
  CheckGiven(known.offsets, "bags->offsets");
  if (known.num > 0xFFFFFFFF) {
    Refuse("bags->num is %llu, above 4294967295", known.num);
  }
  if (known.offsets[0] != 0) {
    Refuse("bags->offsets[0] is %llu, not 0", known.offsets[0]);
  }
  for (unsigned long long i = 0; i < known.num; ++i) {
    if (known.offsets[i + 1] < known.offsets[i]) {
      Refuse("bags->offsets[%llu] is %llu, below the one before it", i + 1, known.offsets[i + 1]);
    }
  }
  if (known.offsets[known.num] != num) {
    Refuse("bags->offsets[%llu], the last, is %llu, not num, %llu", known.num, known.offsets[known.num], num);
  }
  if (known.pool != KAVO_POOL_SUM && known.pool != KAVO_POOL_MEAN) {
    Refuse("bags->pool is %u", known.pool);
  }
  if (known.pool == KAVO_POOL_MEAN && known.weights != nullptr) {
    Refuse("bags->weights are given with KAVO_POOL_MEAN");
  }
  if (known.hasPadding > 1) {
    Refuse("bags->hasPadding is %u, not 0 or 1", known.hasPadding);
  }
  return known;
}

void CheckAbsent(unsigned absent, const float* absentRow) {
  if (absent > KAVO_ABSENT_START) {
    Refuse("absent is %u", absent);
  }
  if (absent == KAVO_ABSENT_ROW) {
    CheckGiven(absentRow, "absentRow");
  }
}

}  // namespace Qen
