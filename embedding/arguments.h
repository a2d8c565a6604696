// The checks of what callers hand in. Each throws a Failure of KAVO_INVALID that names what is wrong.
#pragma once

#include <cstddef>
#include <span>

#include "kavo_embedding.h"

namespace Qen {

[[noreturn]] void Refuse(const char* format, ...) __attribute__((format(printf, 1, 2)));

inline void CheckGiven(const void* pointer, const char* name) {
  if (pointer == nullptr) [[unlikely]] {
    Refuse("%s is null", name);
  }
}

// Null is an array of no elements.
inline void CheckArray(const void* array, unsigned long long num, const char* name) {
  if (num != 0) {
    CheckGiven(array, name);
  }
}

// A batch: not null, and few enough for numbers of 32 bits.
std::span<const long> CheckKeys(const long* keys, unsigned long long num);
void CheckRates(const KavoRates& rates);
// Initialiser, startA, startB, initialAccumulator.
void CheckStart(const KavoEmbeddingOptions& options);
// Options as the caller knows them, checked; what the caller does not know is 0.
KavoEmbeddingOptions CheckOptions(const KavoEmbeddingOptions* options);
// Bags as the caller knows them, checked against their keys.
KavoBags CheckBags(const KavoBags* bags, unsigned long long num);
void CheckAbsent(unsigned absent, const float* absentRow);

}  // namespace Qen
