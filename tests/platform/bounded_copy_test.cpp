#include "platform/bounded_copy.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

constexpr std::size_t ARENA = 16;
constexpr std::size_t BEYOND = Qen::RSIZE_LIMIT + 1;

// Offsets into one arena that starts as "abcdefghijklmnop"; NONE is a null pointer. '0' in the expected arena stands
// for a zero byte.
constexpr int NONE = -1;

struct CopyCase {
  const char* name;
  int dest;
  std::size_t destMax;
  int src;
  std::size_t count;
  int result;
  const char* arena;
};

const CopyCase COPY_CASES[] = {
    {"Fits", 0, 4, 8, 4, 0, "ijklefghijklmnop"},
    {"ShorterThanDestination", 0, 8, 8, 3, 0, "ijkdefghijklmnop"},
    {"Nothing", 0, 4, 8, 0, 0, "abcdefghijklmnop"},
    {"NothingIntoNothing", 0, 0, 8, 0, 0, "abcdefghijklmnop"},
    {"NullDestination", NONE, 4, 8, 4, EINVAL, "abcdefghijklmnop"},
    {"NullSource", 0, 4, NONE, 2, EINVAL, "0000efghijklmnop"},
    {"NullSourceOfNothing", 0, 4, NONE, 0, EINVAL, "0000efghijklmnop"},
    {"DestinationBeyondLimit", 0, BEYOND, 8, 4, EINVAL, "abcdefghijklmnop"},
    {"CountBeyondLimit", 0, 4, 8, BEYOND, EINVAL, "0000efghijklmnop"},
    {"CountAtLimit", 0, 4, 8, Qen::RSIZE_LIMIT, ERANGE, "0000efghijklmnop"},
    {"OneTooMany", 0, 4, 8, 5, ERANGE, "0000efghijklmnop"},
    {"IntoNothing", 0, 0, 8, 1, ERANGE, "abcdefghijklmnop"},
    {"OverlapForward", 2, 4, 0, 4, ERANGE, "ab0000ghijklmnop"},
    {"OverlapBackward", 0, 4, 2, 4, ERANGE, "0000efghijklmnop"},
    {"OverlapByOneByte", 3, 4, 0, 4, ERANGE, "abc0000hijklmnop"},
    {"AdjacentForward", 4, 4, 0, 4, 0, "abcdabcdijklmnop"},
    {"AdjacentBackward", 0, 4, 4, 4, 0, "efghefghijklmnop"},
    {"OntoItself", 4, 4, 4, 4, 0, "abcdefghijklmnop"},
    {"OntoItselfTooMany", 4, 4, 4, 5, ERANGE, "abcd0000ijklmnop"},
};

class Arena {
 public:
  unsigned char* At(int offset) { return offset == NONE ? nullptr : m_bytes.data() + offset; }
  std::string Text() const {
    std::string text;
    for (const unsigned char byte : m_bytes) {
      text += byte == 0 ? '0' : static_cast<char>(byte);
    }
    return text;
  }

 private:
  std::array<unsigned char, ARENA> m_bytes{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h',
                                           'i', 'j', 'k', 'l', 'm', 'n', 'o', 'p'};
};

TEST(BoundedCopyTest, CopiesExactlyWhatFitsAndZeroesTheDestinationOtherwise) {
  for (const CopyCase& c : COPY_CASES) {
    Arena arena;
    EXPECT_EQ(Qen::memcpy_s(arena.At(c.dest), c.destMax, arena.At(c.src), c.count), c.result) << c.name;
    EXPECT_EQ(arena.Text(), c.arena) << c.name;
  }
}

}  // namespace
