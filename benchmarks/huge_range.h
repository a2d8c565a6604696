// A range of zero pages, huge ones where the system gives them.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <new>

namespace Bench {

class HugeRange {
 public:
  explicit HugeRange(std::size_t bytes) : m_bytes((bytes + PAGE - 1) / PAGE * PAGE + PAGE) {
    m_mapping = ::mmap(nullptr, m_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m_mapping == MAP_FAILED) {
      throw std::bad_alloc();
    }
    ::madvise(m_mapping, m_bytes, MADV_HUGEPAGE);
    const auto address = reinterpret_cast<std::size_t>(m_mapping);
    m_data = reinterpret_cast<unsigned char*>((address + PAGE - 1) / PAGE * PAGE);
  }
  HugeRange(const HugeRange&) = delete;
  HugeRange& operator=(const HugeRange&) = delete;
  ~HugeRange() { ::munmap(m_mapping, m_bytes); }

  unsigned char* Data() const { return m_data; }

 private:
  static constexpr std::size_t PAGE = std::size_t{2} << 20U;

  std::size_t m_bytes;
  void* m_mapping = nullptr;
  unsigned char* m_data = nullptr;
};

}  // namespace Bench
