// Replaces the standard library's allocations in the one program that includes it.
#pragma once

#include <cstdlib>
#include <new>

// The program's: whether this allocation may have memory.
bool IsGranted() noexcept;

// Not inlined: a compiler that sees into one of a pair takes malloc and delete, or new and free, for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return IsGranted() ? std::malloc(bytes) : nullptr;
}
[[gnu::noinline]] void* operator new(std::size_t bytes) {
  void* const memory = operator new(bytes, std::nothrow);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](std::size_t bytes) {
  return operator new(bytes);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
