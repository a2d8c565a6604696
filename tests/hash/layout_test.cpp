// Sizes, thresholds and the initial state of a generation.
#include <gtest/gtest.h>

#include "hash/test_table.h"
#include "platform/log_sink.h"
#include "support/fault_loop.h"
#include "support/log_capture.h"

namespace KavoTest {
namespace {

using SizedTable = Qen::ConcurrentTable<long, Qen::HashValue, Qen::KTraits, Qen::VTraits>;

TEST(Layout, CapacityGivesCellsAndMapThreshold) {
  const struct {
    unsigned long long asked, capacity, cells, maxMaps;
  } cases[] = {{0, 2'097'152, 8'388'608, 6'291},
               {1, 8, 16, 0},
               {7, 8, 16, 0},
               {8, 8, 16, 0},
               {9, 9, 16, 0},
               {10, 10, 32, 0},
               {100, 100, 256, 0},
               {1000, 1000, 4096, 3},
               {1'000'000, 1'000'000, 4'194'304, 3'145}};
  const TestBlocks blocks;
  for (const auto& c : cases) {
    const SizedTable table(c.asked, blocks.Directory());
    const Core& core = *table.GetHashtable().CurrentGeneration();
    EXPECT_EQ(table.Capacity(), c.capacity) << c.asked;
    EXPECT_EQ(core.TableSize(), c.cells) << c.asked;
    EXPECT_EQ(core.MaxMapNum(), c.maxMaps) << c.asked;
  }
}

TEST(Layout, GenerationSizeIsThePowerOfTwoThatHoldsTheRequest) {
  const struct {
    unsigned long long asked, cells, maxMaps, chunk;
  } cases[] = {{0, 8, 0, 8},
               {8, 8, 0, 8},
               {9, 16, 0, 16},
               {1024, 1024, 0, 256},
               {1025, 2048, 1, 256},
               {32768, 32768, 24, 256},
               {65536, 65536, 49, 512},
               {1ULL << 21, 1ULL << 21, 1572, 16384}};
  const TestBlocks blocks;
  for (const auto& c : cases) {
    const Core core(c.asked, blocks.Directory());
    EXPECT_EQ(core.TableSize(), c.cells);
    EXPECT_EQ(core.MaxMapNum(), c.maxMaps);
    EXPECT_EQ(core.ChunkSize(), c.chunk);
  }
}

TEST(Layout, NewCellsAreEmpty) {
  const TestBlocks blocks;
  const Core core(4096, blocks.Directory());
  for (unsigned long long i = 0; i < core.TableSize(); ++i) {
    const Core::Cell& cell = core.CellAt(i);
    ASSERT_EQ(cell.LoadKey(), Qen::HCore::EMPTY_KEY);
    ASSERT_EQ(cell.flags.Load() + cell.firstLink.Distance() + cell.nextLink.Distance(), 0U);
    ASSERT_EQ(cell.value.State(), Qen::RecordState::FILLING);
    ASSERT_EQ(core.FindMap(i), nullptr);
  }
}

TEST(Layout, EveryFailedAllocationOfATableIsReportedByEachLayer) {
  const TestBlocks blocks;
  const long long heap = Qen::TestHooks::HeapBytesInUse();
  const unsigned long long allocations = ForEachFailingAllocation([&] {
    LogCapture log(Qen::SetLogSink);
    bool failed = false;
    try {
      const SizedTable table(1000, blocks.Directory());
    } catch (const std::bad_alloc&) {
      failed = true;
    }
    ASSERT_EQ(failed, FaultWasInjected());
    EXPECT_EQ(Qen::TestHooks::HeapBytesInUse(), heap);
    if (failed) {
      for (const LogLine& line : log.Lines()) {
        EXPECT_EQ(line.message, "make_unique failed, exception caught:std::bad_alloc");
        EXPECT_EQ(line.level, KAVO_LOG_LEVEL_EVENT);
        EXPECT_EQ(line.file, "concurrent_tables_adapter.cpp");
      }
      EXPECT_EQ(log.Lines().back().function, "ConcurrentTable");
    }
  });
  EXPECT_EQ(allocations, 4U);  // the table, its first generation, the cells, the index of maps
}

TEST(Layout, CellsThatCannotBeMappedFailAllThreeLayersInOrder) {
  LogCapture log(Qen::SetLogSink);
  EXPECT_THROW(SizedTable(1ULL << 60, TestBlocks().Directory()), std::bad_alloc);
  std::vector<std::string> functions;
  for (const LogLine& line : log.Lines()) {
    functions.push_back(line.function);
  }
  EXPECT_EQ(functions, (std::vector<std::string>{"HashCore", "Hashtable", "ConcurrentTable"}));
}

}  // namespace
}  // namespace KavoTest
