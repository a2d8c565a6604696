// The one place from which the library takes heap memory and pages, so that a test build can fail the n-th request
// and count what is outstanding.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

// Whether AddressSanitizer is compiled in, as g++ or as clang says it.
#if defined(__SANITIZE_ADDRESS__)
#define KAVO_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KAVO_ADDRESS_SANITIZER 1
#endif
#endif
#ifndef KAVO_ADDRESS_SANITIZER
#define KAVO_ADDRESS_SANITIZER 0
#endif

namespace Qen {

// Throws std::bad_alloc. The alignment is that of operator new.
void* HeapAllocate(std::size_t bytes);
// The same without the exception: null when there is no memory.
void* TryHeapAllocate(std::size_t bytes) noexcept;
void HeapFree(void* memory, std::size_t bytes) noexcept;

template <class T, class... Args>
T* HeapNew(Args&&... args) {
  static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
  void* memory = HeapAllocate(sizeof(T));
  try {
    return ::new (memory) T(std::forward<Args>(args)...);
  } catch (...) {
    HeapFree(memory, sizeof(T));
    throw;
  }
}

// `object` must have been made by HeapNew of exactly this type.
template <class T>
void HeapDelete(T* object) noexcept {
  if (object != nullptr) {
    object->~T();
    HeapFree(object, sizeof(T));
  }
}

template <class T>
struct HeapDeleter {
  void operator()(T* object) const noexcept { HeapDelete(object); }
};

template <class T>
using HeapPtr = std::unique_ptr<T, HeapDeleter<T>>;

template <class T, class... Args>
HeapPtr<T> MakeHeapPtr(Args&&... args) {
  return HeapPtr<T>(HeapNew<T>(std::forward<Args>(args)...));
}

// For the standard containers.
template <class T>
struct HeapAllocator {
  using value_type = T;
  HeapAllocator() noexcept = default;
  template <class U>
  HeapAllocator(const HeapAllocator<U>&) noexcept {}
  T* allocate(std::size_t n) {
    if (n > static_cast<std::size_t>(-1) / sizeof(T)) {
      throw std::bad_array_new_length();
    }
    return static_cast<T*>(HeapAllocate(n * sizeof(T)));
  }
  void deallocate(T* memory, std::size_t n) noexcept { HeapFree(memory, n * sizeof(T)); }
  friend bool operator==(const HeapAllocator&, const HeapAllocator&) noexcept { return true; }
};

// An owned range of zero-filled memory, aligned to a cache line, and to a page when large. Untouched pages cost address
// space only. Large ranges are aligned to huge pages and ask for them, quietly without where there are none; small ones
// come from the heap. A request larger than physical memory is refused, because the system would grant it and fail at
// first touch.
class ZeroedRange {
 public:
  ZeroedRange() noexcept = default;
  // Throws std::bad_alloc. `bytes` may be 0, which gives an empty range.
  explicit ZeroedRange(std::size_t bytes);
  // count * size bytes; a product that overflows is refused like a failed request.
  ZeroedRange(std::size_t count, std::size_t size);
  ZeroedRange(ZeroedRange&& other) noexcept;
  ZeroedRange& operator=(ZeroedRange&& other) noexcept;
  ZeroedRange(const ZeroedRange&) = delete;
  ZeroedRange& operator=(const ZeroedRange&) = delete;
  ~ZeroedRange();

  // Gives pages back to the system: their bytes read zero from here on, and cost nothing until they are written again.
  // False, and nothing changed, for a range from the heap, or when the system refused. `offset` is a multiple of the
  // page size, and so is `bytes` unless they end the range.
  bool GiveBack(std::size_t offset, std::size_t bytes) noexcept;

  void* Data() const noexcept { return m_data; }
  std::size_t Bytes() const noexcept { return m_bytes; }

 private:
  void Release() noexcept;

  void* m_data = nullptr;
  std::size_t m_bytes = 0;
};

// Sanitizer support, nothing elsewhere: marks bytes as not to be touched, or as ordinary again. A ZeroedRange makes
// all of its bytes ordinary again before it gives them back.
void PoisonBytes(void* memory, std::size_t bytes) noexcept;
void UnpoisonBytes(void* memory, std::size_t bytes) noexcept;

// Bytes to leave unused behind each block so that an overrun meets poisoned memory; 0 without AddressSanitizer.
inline constexpr std::size_t REDZONE_BYTES = KAVO_ADDRESS_SANITIZER != 0 ? 16 : 0;

}  // namespace Qen
