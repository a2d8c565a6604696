#include "platform/allocation.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "platform/cache_line.h"
#include "platform/test_hooks.h"

#if KAVO_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

namespace Qen {
namespace {

// Up to here a range comes from the heap: a mapping costs two system calls and at least a page fault.
constexpr std::size_t MAX_HEAP_RANGE_BYTES = std::size_t{128} << 10;
constexpr std::align_val_t CACHE_LINE{CACHE_LINE_BYTES};
constexpr std::size_t HUGE_PAGE_BYTES = std::size_t{2} << 20;

void CountHeap([[maybe_unused]] std::size_t bytes, [[maybe_unused]] bool taken) noexcept {
#ifdef KAVO_TESTING
  TestHooks::CountHeapBytes(taken ? static_cast<long long>(bytes) : -static_cast<long long>(bytes));
#endif
}

void CountMapped([[maybe_unused]] std::size_t bytes, [[maybe_unused]] bool taken) noexcept {
#ifdef KAVO_TESTING
  TestHooks::CountMappedBytes(taken ? static_cast<long long>(bytes) : -static_cast<long long>(bytes));
#endif
}

bool FailsByPlan() noexcept {
#ifdef KAVO_TESTING
  return TestHooks::ShouldFailAllocation();
#else
  return false;
#endif
}

std::size_t PageBytes() noexcept {
  return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

std::size_t PhysicalBytes() noexcept {
  return static_cast<std::size_t>(::sysconf(_SC_PHYS_PAGES)) * PageBytes();
}

std::size_t RoundUp(std::size_t bytes, std::size_t unit) noexcept {
  return (bytes + unit - 1) / unit * unit;
}

std::size_t MappingBytes(std::size_t bytes) noexcept {
  return RoundUp(bytes, PageBytes());
}

void* Map(std::size_t bytes) {
  void* const memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::bad_alloc();
  }
  return memory;
}

// The system aligns a mapping to a page only: map enough for an aligned piece to lie inside, and give back the rest.
void* MapForHugePages(std::size_t bytes) {
  const std::size_t spare = HUGE_PAGE_BYTES - PageBytes();
  char* const mapped = static_cast<char*>(Map(bytes + spare));
  const auto address = reinterpret_cast<std::uintptr_t>(mapped);
  const std::size_t before = RoundUp(address, HUGE_PAGE_BYTES) - address;
  char* const memory = mapped + before;
  if (before > 0) {
    ::munmap(mapped, before);
  }
  if (before < spare) {
    ::munmap(memory + bytes, spare - before);
  }
  // Refused where there are no huge pages; ordinary ones do.
  ::madvise(memory, bytes, MADV_HUGEPAGE);
  return memory;
}

std::size_t Product(std::size_t count, std::size_t size) {
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) {
    throw std::bad_alloc();
  }
  return bytes;
}

}  // namespace

void* TryHeapAllocate(std::size_t bytes) noexcept {
  if (FailsByPlan()) {
    return nullptr;
  }
  void* const memory = ::operator new(bytes, std::nothrow);
  if (memory != nullptr) {
    CountHeap(bytes, true);
  }
  return memory;
}

void* HeapAllocate(std::size_t bytes) {
  void* const memory = TryHeapAllocate(bytes);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void HeapFree(void* memory, std::size_t bytes) noexcept {
  if (memory != nullptr) {
    CountHeap(bytes, false);
    ::operator delete(memory);
  }
}

ZeroedRange::ZeroedRange(std::size_t bytes) {
  if (bytes == 0) {
    return;
  }
  if (bytes <= MAX_HEAP_RANGE_BYTES) {
    m_data = FailsByPlan() ? nullptr : ::operator new(bytes, CACHE_LINE, std::nothrow);
    if (m_data == nullptr) {
      throw std::bad_alloc();
    }
    CountHeap(bytes, true);
    std::memset(m_data, 0, bytes);
  } else {
    // The plan is asked first, so that a test's count of requests does not depend on the machine.
    if (FailsByPlan() || bytes > PhysicalBytes()) {
      throw std::bad_alloc();
    }
    const std::size_t mappingBytes = MappingBytes(bytes);
    m_data = bytes >= HUGE_PAGE_BYTES ? MapForHugePages(mappingBytes) : Map(mappingBytes);
    CountMapped(mappingBytes, true);
  }
  m_bytes = bytes;
}

ZeroedRange::ZeroedRange(std::size_t count, std::size_t size) : ZeroedRange(Product(count, size)) {}

ZeroedRange::ZeroedRange(ZeroedRange&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_bytes(std::exchange(other.m_bytes, 0)) {}

ZeroedRange& ZeroedRange::operator=(ZeroedRange&& other) noexcept {
  if (this != &other) {
    Release();
    m_data = std::exchange(other.m_data, nullptr);
    m_bytes = std::exchange(other.m_bytes, 0);
  }
  return *this;
}

ZeroedRange::~ZeroedRange() {
  Release();
}

bool ZeroedRange::GiveBack(std::size_t offset, std::size_t bytes) noexcept {
  return m_bytes > MAX_HEAP_RANGE_BYTES &&
         ::madvise(static_cast<char*>(m_data) + offset, MappingBytes(bytes), MADV_DONTNEED) == 0;
}

void ZeroedRange::Release() noexcept {
  if (m_data == nullptr) {
    return;
  }
  UnpoisonBytes(m_data, m_bytes);
  if (m_bytes <= MAX_HEAP_RANGE_BYTES) {
    CountHeap(m_bytes, false);
    ::operator delete(m_data, CACHE_LINE);
  } else {
    const std::size_t mappingBytes = MappingBytes(m_bytes);
    CountMapped(mappingBytes, false);
    ::munmap(m_data, mappingBytes);
  }
  m_data = nullptr;
  m_bytes = 0;
}

void PoisonBytes([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t bytes) noexcept {
#if KAVO_ADDRESS_SANITIZER
  __asan_poison_memory_region(memory, bytes);
#endif
}

void UnpoisonBytes([[maybe_unused]] void* memory, [[maybe_unused]] std::size_t bytes) noexcept {
#if KAVO_ADDRESS_SANITIZER
  __asan_unpoison_memory_region(memory, bytes);
#endif
}

}  // namespace Qen
