// From a row to the keys of its parameters: one key for each field's value.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <optional>

#include "ctr_training/click_row.h"

namespace CtrTraining {

using FeatureKeys = std::array<long, FIELDS>;

// An absent value is a value of its own, beyond every bucket and every category.
inline constexpr std::uint64_t MISSING_VALUE = std::uint64_t{1} << 32;

// Field and value side by side, so that no two features meet.
constexpr long FeatureKey(std::uint64_t field, std::uint64_t value) {
  constexpr int VALUE_BITS = 33;
  return static_cast<long>(field << VALUE_BITS | value);
}

// The key of the term that every row has.
inline constexpr long INTERCEPT_KEY = FeatureKey(FIELDS, 0);

// Integers become categories by their power of two; negative ones have buckets of their own.
constexpr std::uint64_t IntegerBucket(const std::optional<std::int64_t>& integer) {
  constexpr std::uint64_t NEGATIVE_BUCKETS = 64;
  if (!integer) {
    return MISSING_VALUE;
  }
  if (*integer < 0) {
    return NEGATIVE_BUCKETS + static_cast<std::uint64_t>(std::bit_width(static_cast<std::uint64_t>(~*integer)));
  }
  return static_cast<std::uint64_t>(std::bit_width(static_cast<std::uint64_t>(*integer)));
}

inline FeatureKeys KeysOf(const ClickRow& row) {
  FeatureKeys keys;
  for (std::size_t i = 0; i < INTEGER_FIELDS; ++i) {
    keys[i] = FeatureKey(i, IntegerBucket(row.integers[i]));
  }
  for (std::size_t i = 0; i < CATEGORY_FIELDS; ++i) {
    const auto& category = row.categories[i];
    keys[INTEGER_FIELDS + i] = FeatureKey(INTEGER_FIELDS + i, category ? *category : MISSING_VALUE);
  }
  return keys;
}

}  // namespace CtrTraining
