#include "platform/allocation.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

#include "platform/test_hooks.h"
#include "support/fault_loop.h"

namespace {

using Qen::ZeroedRange;
namespace Hooks = Qen::TestHooks;

constexpr std::size_t KIB = 1024;
constexpr std::size_t MIB = 1024 * KIB;
constexpr std::size_t LARGEST_HEAP_RANGE = 128 * KIB;

std::size_t PageBytes() {
  return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// Every test must leave the two accounts as it found them.
class AllocationTest : public ::testing::Test {
 protected:
  ~AllocationTest() override {
    Hooks::FailAllocation(0);
    EXPECT_EQ(Hooks::HeapBytesInUse(), m_heap);
    EXPECT_EQ(Hooks::MappedBytesInUse(), m_mapped);
  }

  long long HeapTaken() const { return Hooks::HeapBytesInUse() - m_heap; }
  long long MappedTaken() const { return Hooks::MappedBytesInUse() - m_mapped; }

 private:
  long long m_heap = Hooks::HeapBytesInUse();
  long long m_mapped = Hooks::MappedBytesInUse();
};

TEST_F(AllocationTest, RangeIsZeroAlignedWritableAndAccountedWhateverItsSize) {
  for (const std::size_t bytes : {std::size_t{1}, std::size_t{4097}, LARGEST_HEAP_RANGE, LARGEST_HEAP_RANGE + 1,
                                  2 * MIB - 1, 2 * MIB, 2 * MIB + 1, 7 * MIB + 3}) {
    SCOPED_TRACE(bytes);
    // The second time round, the heap hands out what the first made dirty.
    for (int round = 0; round < 2; ++round) {
      const ZeroedRange range(bytes);
      ASSERT_EQ(range.Bytes(), bytes);
      auto* const data = static_cast<unsigned char*>(range.Data());
      EXPECT_TRUE(std::all_of(data, data + bytes, [](unsigned char byte) { return byte == 0; }));
      std::memset(data, 0xAB, bytes);

      const bool mapped = bytes > LARGEST_HEAP_RANGE;
      const std::size_t alignment = bytes >= 2 * MIB ? 2 * MIB : mapped ? PageBytes() : 64;
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(data) % alignment, 0u);
      EXPECT_EQ(HeapTaken(), mapped ? 0 : static_cast<long long>(bytes));
      const std::size_t pages = (bytes + PageBytes() - 1) / PageBytes();
      EXPECT_EQ(MappedTaken(), mapped ? static_cast<long long>(pages * PageBytes()) : 0);
    }
  }
}

TEST_F(AllocationTest, EmptyRangeTakesNothing) {
  Hooks::FailAllocation(1, true);
  for (const ZeroedRange& range : {ZeroedRange(), ZeroedRange(0), ZeroedRange(0, 8), ZeroedRange(8, 0)}) {
    EXPECT_EQ(range.Data(), nullptr);
    EXPECT_EQ(range.Bytes(), 0u);
  }
  EXPECT_EQ(Hooks::AllocationsSeen(), 0u);
}

TEST_F(AllocationTest, OverflowAndMoreThanPhysicalMemoryAreRefused) {
  constexpr std::size_t MOST = std::numeric_limits<std::size_t>::max();
  const std::size_t physical = static_cast<std::size_t>(::sysconf(_SC_PHYS_PAGES)) * PageBytes();
  EXPECT_THROW(ZeroedRange{MOST}, std::bad_alloc);
  EXPECT_THROW(ZeroedRange{physical + 1}, std::bad_alloc);
  EXPECT_THROW(ZeroedRange(MOST / 8 + 1, 8), std::bad_alloc);
  // The product wraps around to a small number.
  EXPECT_THROW(ZeroedRange(MOST / 2 + 1, 2), std::bad_alloc);
  EXPECT_THROW(ZeroedRange(std::size_t{1} << 33, (std::size_t{1} << 31) + 1), std::bad_alloc);
  const ZeroedRange product(3, 5);
  EXPECT_EQ(product.Bytes(), 15u);
}

struct ProcessPages {
  ProcessPages() {
    std::FILE* const file = std::fopen("/proc/self/statm", "r");
    EXPECT_NE(file, nullptr);
    EXPECT_EQ(std::fscanf(file, "%ld %ld", &mapped, &resident), 2);
    std::fclose(file);
  }
  long mapped = 0;
  long resident = 0;
};

TEST_F(AllocationTest, UntouchedPagesOfLargeRangeCostNoMemory) {
  const std::size_t bytes = 256 * MIB;
  const ProcessPages before;
  const ZeroedRange range(bytes);
  EXPECT_LT(ProcessPages().resident - before.resident, static_cast<long>(bytes / PageBytes() / 4));
}

TEST_F(AllocationTest, AlignedRangeKeepsNoMoreAddressSpaceThanItsOwnAndGivesThatBack) {
  constexpr std::size_t RANGES = 64;
  const ProcessPages before;
  {
    std::vector<ZeroedRange> ranges;
    for (std::size_t i = 0; i < RANGES; ++i) {
      ranges.emplace_back(3 * MIB);
    }
    EXPECT_LT(ProcessPages().mapped - before.mapped, static_cast<long>(RANGES * 4 * MIB / PageBytes()));
  }
  EXPECT_LT(ProcessPages().mapped - before.mapped, static_cast<long>(RANGES * MIB / PageBytes()));
}

TEST_F(AllocationTest, MoveHandsOverTheMemoryAndReleasesWhatWasHeld) {
  for (const std::size_t bytes : {100 * KIB, 3 * MIB}) {
    ZeroedRange first(bytes);
    void* const data = first.Data();
    ZeroedRange second(std::move(first));
    EXPECT_EQ(first.Data(), nullptr);  // NOLINT(bugprone-use-after-move): what a moved-from range holds is the question
    EXPECT_EQ(first.Bytes(), 0u);
    EXPECT_EQ(second.Data(), data);

    ZeroedRange third(200 * KIB);
    third = std::move(second);
    EXPECT_EQ(third.Data(), data);
    EXPECT_EQ(third.Bytes(), bytes);
    EXPECT_EQ(HeapTaken() + MappedTaken(), static_cast<long long>(bytes));

    ZeroedRange& self = third;
    third = std::move(self);
    EXPECT_EQ(third.Data(), data);
    second = std::move(third);
    second = ZeroedRange();
    EXPECT_EQ(HeapTaken() + MappedTaken(), 0);
  }
}

TEST_F(AllocationTest, EachRequestIsOneChanceToFailAndAFailedOneTakesNothing) {
  const unsigned long long failed = KavoTest::ForEachFailingAllocation([this] {
    try {
      const ZeroedRange small(64);
      const ZeroedRange large(3 * MIB);
      const Qen::HeapPtr<std::vector<int>> object = Qen::MakeHeapPtr<std::vector<int>>();
      std::vector<int, Qen::HeapAllocator<int>> numbers(10);
      EXPECT_FALSE(KavoTest::FaultWasInjected());
    } catch (const std::bad_alloc&) {
      EXPECT_TRUE(KavoTest::FaultWasInjected());
    }
    EXPECT_EQ(HeapTaken(), 0);
    EXPECT_EQ(MappedTaken(), 0);
  });
  EXPECT_EQ(failed, 4u);
}

TEST_F(AllocationTest, FaultHitsOnceOrStays) {
  for (const bool stay : {false, true}) {
    Hooks::FailAllocation(2, stay);
    std::vector<bool> refused;
    for (int i = 0; i < 4; ++i) {
      void* const memory = Qen::TryHeapAllocate(8);
      refused.push_back(memory == nullptr);
      Qen::HeapFree(memory, 8);
    }
    Hooks::FailAllocation(0);
    EXPECT_EQ(refused, (std::vector<bool>{false, true, stay, stay}));
    EXPECT_EQ(Hooks::AllocationsSeen(), 4u);
    EXPECT_EQ(Hooks::AllocationFailures(), stay ? 3u : 1u);
  }
}

struct Grumpy {
  Grumpy() { throw std::runtime_error("no"); }
};

TEST_F(AllocationTest, ConstructorThatThrowsLeavesNothingBehind) {
  EXPECT_THROW(Qen::HeapNew<Grumpy>(), std::runtime_error);
}

TEST_F(AllocationTest, HeapAllocatorRefusesACountThatOverflows) {
  EXPECT_THROW(Qen::HeapAllocator<long>().allocate(std::numeric_limits<std::size_t>::max() / 4), std::bad_alloc);
}

#if KAVO_ADDRESS_SANITIZER
TEST_F(AllocationTest, PoisonedBytesAreCaughtAndForgottenWithTheRange) {
  // Both kinds of range come back at the same place sooner or later; poison that stays would be met there.
  for (const std::size_t bytes : {64 * KIB, 3 * MIB}) {
    for (int round = 0; round < 3; ++round) {
      ZeroedRange range(bytes);
      auto* const data = static_cast<unsigned char*>(range.Data());
      std::memset(data, 1, bytes);
      Qen::PoisonBytes(data + 1024, 512);
      EXPECT_DEATH(*static_cast<volatile unsigned char*>(data + 1030) = 1, "use-after-poison");
      Qen::UnpoisonBytes(data + 1024, 256);
      data[1030] = 1;
    }
  }
}
#endif

}  // namespace
