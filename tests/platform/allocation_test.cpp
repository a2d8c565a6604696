#include "platform/allocation.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <vector>

#include "support/held.h"

namespace {

using Qen::ZeroedRange;

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;
constexpr std::size_t LARGEST_HEAP_RANGE = 128 * KIB;

std::size_t PageBytes() {
  return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// Every test must leave the two accounts as it found them.
class Allocation : public ::testing::Test {
 protected:
  ~Allocation() override {
    EXPECT_EQ(HeapTaken(), 0);
    EXPECT_EQ(MappedTaken(), 0);
  }
  long long HeapTaken() const { return KavoTest::Held().heap - m_before.heap; }
  long long MappedTaken() const { return KavoTest::Held().mapped - m_before.mapped; }

 private:
  const KavoTest::Held m_before{};
};

TEST_F(Allocation, ARangeIsZeroAlignedWritableAndAccountedWhateverItsSize) {
  EXPECT_EQ(ZeroedRange(0, 8).Data(), nullptr);
  for (const std::size_t bytes : {std::size_t{1}, std::size_t{4097}, LARGEST_HEAP_RANGE, LARGEST_HEAP_RANGE + 1,
                                  2 * MIB - 1, 2 * MIB, 2 * MIB + 1, 7 * MIB + 3}) {
    SCOPED_TRACE(bytes);
    // The second time round, the heap hands out what the first made dirty.
    for (int round = 0; round < 2; ++round) {
      const ZeroedRange range(bytes);
      auto* const data = static_cast<unsigned char*>(range.Data());
      EXPECT_TRUE(std::all_of(data, data + bytes, [](unsigned char byte) { return byte == 0; }));
      std::memset(data, 0xAB, bytes);
      const bool mapped = bytes > LARGEST_HEAP_RANGE;
      const std::size_t alignment = bytes >= 2 * MIB ? 2 * MIB : mapped ? PageBytes() : 64;
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(data) % alignment, 0U);
      const std::size_t wholePages = (bytes + PageBytes() - 1) / PageBytes() * PageBytes();
      EXPECT_EQ(HeapTaken(), mapped ? 0 : static_cast<long long>(bytes));
      EXPECT_EQ(MappedTaken(), mapped ? static_cast<long long>(wholePages) : 0);
    }
  }
}

TEST_F(Allocation, OverflowAndMoreThanPhysicalMemoryAreRefused) {
  constexpr std::size_t MOST = std::numeric_limits<std::size_t>::max();
  EXPECT_THROW(ZeroedRange{MOST}, std::bad_alloc);
  EXPECT_THROW(ZeroedRange{static_cast<std::size_t>(::sysconf(_SC_PHYS_PAGES)) * PageBytes() + 1}, std::bad_alloc);
  EXPECT_THROW(ZeroedRange(MOST / 2 + 1, 2), std::bad_alloc) << "the product wraps around to 0";
  EXPECT_THROW(Qen::HeapAllocator<long>().allocate(MOST / 8 + 1), std::bad_alloc);
}

// Each is mapped with 2 MiB to spare, so that an aligned piece lies inside.
TEST_F(Allocation, UntouchedPagesCostAddressSpaceOnlyAndNoMoreOfItThanTheRangesThemselves) {
  constexpr std::size_t RANGES = 64;
  const auto used = [](bool resident) {
    std::size_t pages[2] = {};
    std::ifstream("/proc/self/statm") >> pages[0] >> pages[1];
    return pages[resident ? 1 : 0] * PageBytes();
  };
  const std::size_t mapped = used(false);
  const std::size_t resident = used(true);
  {
    std::vector<ZeroedRange> ranges;
    for (std::size_t i = 0; i < RANGES; ++i) {
      ranges.emplace_back(3 * MIB);
    }
    EXPECT_LT(used(false), mapped + RANGES * (3 * MIB + MIB / 2));
    EXPECT_LT(used(true), resident + RANGES * MIB);
  }
  EXPECT_LT(used(false), mapped + RANGES * MIB / 2);
}

TEST_F(Allocation, AMoveHandsOverTheMemoryAndReleasesWhatWasHeld) {
  for (const std::size_t bytes : {100 * KIB, 3 * MIB}) {
    ZeroedRange first(bytes);
    void* const data = first.Data();
    ZeroedRange second(std::move(first));
    EXPECT_EQ(first.Data(), nullptr);  // NOLINT(bugprone-use-after-move): what a moved-from range holds is the question
    ZeroedRange third(200 * KIB);
    third = std::move(second);
    ZeroedRange& self = third;
    third = std::move(self);
    EXPECT_EQ(third.Data(), data);
    EXPECT_EQ(HeapTaken() + MappedTaken(), static_cast<long long>(bytes));
  }
}

struct Grumpy {
  Grumpy() { throw std::runtime_error("no"); }
};

TEST_F(Allocation, AConstructorThatThrowsLeavesNothingBehind) {
  EXPECT_THROW(Qen::HeapNew<Grumpy>(), std::runtime_error);
}

}  // namespace
