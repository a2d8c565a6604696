// Numbers and texts in the bytes of a file, little-endian, without gaps.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "kavo_embedding.h"
#include "snapshot/failure.h"

namespace Qen {

static_assert(std::endian::native == std::endian::little, "files and rows in memory have one order of bytes");

using Bytes = std::span<const unsigned char>;

class ByteWriter {
 public:
  template <class Number>
  void Put(Number number) {
    static_assert(std::is_arithmetic_v<Number>);
    Put(&number, sizeof(number));
  }
  void Put(const void* from, std::size_t bytes) {
    const auto* first = static_cast<const unsigned char*>(from);
    m_bytes.insert(m_bytes.end(), first, first + bytes);
  }
  Bytes All() const noexcept { return m_bytes; }
  // Overwrites a number that was put at `offset`.
  template <class Number>
  void Patch(std::size_t offset, Number number) noexcept {
    std::memcpy(&m_bytes[offset], &number, sizeof(number));
  }

 private:
  std::vector<unsigned char> m_bytes;
};

// Takes apart what may be anything: throws a Failure of KAVO_REFUSED_FILE that names the file.
class ByteReader {
 public:
  // `file` outlives the reader.
  ByteReader(Bytes bytes, const std::string& file) noexcept : m_left(bytes), m_file(file) {}

  template <class Number>
  Number Take() {
    static_assert(std::is_arithmetic_v<Number>);
    Number number{};
    std::memcpy(&number, Take(sizeof(number)).data(), sizeof(number));
    return number;
  }
  Bytes Take(std::uint64_t bytes) {
    if (bytes > m_left.size()) {
      RefuseFile("is cut off");
    }
    const Bytes taken = m_left.first(static_cast<std::size_t>(bytes));
    m_left = m_left.subspan(taken.size());
    return taken;
  }
  std::size_t Left() const noexcept { return m_left.size(); }
  [[noreturn]] void RefuseFile(const char* cause) const { throw Failure(KAVO_REFUSED_FILE, m_file + ": " + cause); }

 private:
  Bytes m_left;
  const std::string& m_file;
};

}  // namespace Qen
