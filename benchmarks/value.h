// The value of every entry, in every table alike: 64 bytes, as sixteen numbers of an embedding.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>

namespace Bench {

struct alignas(8) Value {
  float numbers[16] = {};
};

inline constexpr unsigned VALUE_BYTES = sizeof(Value);
static_assert(VALUE_BYTES == 64);

// What a reader must find: the value that a build gives to `key`. The first number is small and whole.
inline Value ValueOf(long key) {
  Value value;
  value.numbers[0] = static_cast<float>(key & 0xFFFF);
  value.numbers[15] = 1.0F;
  return value;
}

// The word that a benchmark reads of each value that it finds. Sums of it are checked.
inline std::uint64_t FirstWord(const Value& value) {
  return std::bit_cast<std::uint32_t>(value.numbers[0]);
}

inline std::uint64_t FirstWord(const unsigned char* bytes) {
  std::uint32_t word;
  std::memcpy(&word, bytes, sizeof(word));
  return word;
}

// The step of training, for tables that lock the entry meanwhile.
inline void Add(Value& value, const Value& gradient) {
  for (int i = 0; i < 16; ++i) {
    value.numbers[i] += gradient.numbers[i];
  }
}

// The same for tables that give the address only. Threads may train one key at once, so every number is read and
// written with relaxed atomic accesses; an addition may get lost between two threads, which training bears.
inline void AddShared(unsigned char* bytes, const Value& gradient) {
  auto* numbers = reinterpret_cast<float*>(bytes);
  for (int i = 0; i < 16; ++i) {
    std::atomic_ref<float> number(numbers[i]);
    number.store(number.load(std::memory_order_relaxed) + gradient.numbers[i], std::memory_order_relaxed);
  }
}

}  // namespace Bench
