#include "platform/bounded_copy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

constexpr std::size_t BEYOND = Qen::RSIZE_LIMIT + 1;
constexpr int NONE = -1;  // a null pointer

// Offsets into one arena that starts as "abcdefghijklmnop". '0' in the expected arena stands for a zero byte.
const struct {
  int dest;
  std::size_t destMax;
  int src;
  std::size_t count;
  int result;
  const char* arena;
} CASES[] = {
    {0, 4, 8, 4, 0, "ijklefghijklmnop"},
    {0, 8, 8, 3, 0, "ijkdefghijklmnop"},
    {0, 0, 8, 0, 0, "abcdefghijklmnop"},
    {NONE, 4, 8, 4, EINVAL, "abcdefghijklmnop"},
    {0, 4, NONE, 2, EINVAL, "0000efghijklmnop"},
    {0, 4, NONE, 0, EINVAL, "0000efghijklmnop"},
    {0, BEYOND, 8, 4, EINVAL, "abcdefghijklmnop"},
    {0, 4, 8, BEYOND, EINVAL, "0000efghijklmnop"},
    {0, 4, 8, Qen::RSIZE_LIMIT, ERANGE, "0000efghijklmnop"},
    {0, 4, 8, 5, ERANGE, "0000efghijklmnop"},
    {0, 0, 8, 1, ERANGE, "abcdefghijklmnop"},
    {2, 4, 0, 4, ERANGE, "ab0000ghijklmnop"},  // overlaps
    {0, 4, 2, 4, ERANGE, "0000efghijklmnop"},
    {3, 4, 0, 4, ERANGE, "abc0000hijklmnop"},
    {4, 4, 0, 4, 0, "abcdabcdijklmnop"},  // touches
    {0, 4, 4, 4, 0, "efghefghijklmnop"},
    {4, 4, 4, 4, 0, "abcdefghijklmnop"},  // onto itself
    {4, 4, 4, 5, ERANGE, "abcd0000ijklmnop"},
};

TEST(BoundedCopy, CopiesExactlyWhatFitsAndZeroesTheDestinationOtherwise) {
  for (const auto& c : CASES) {
    SCOPED_TRACE(&c - CASES);
    std::string arena = "abcdefghijklmnop";
    const auto at = [&arena](int offset) { return offset == NONE ? nullptr : arena.data() + offset; };
    EXPECT_EQ(Qen::memcpy_s(at(c.dest), c.destMax, at(c.src), c.count), c.result);
    std::replace(arena.begin(), arena.end(), '\0', '0');
    EXPECT_EQ(arena, c.arena);
  }
}

}  // namespace
