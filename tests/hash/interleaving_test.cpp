// Each race of an insert, a lookup or another mover against a growing table, with one thread parked at the point where
// it would do harm.
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <thread>
#include <vector>

#include "hash/test_table.h"
#include "platform/log_sink.h"
#include "support/log_capture.h"
#include "support/parking.h"

namespace KavoTest {
namespace {

// Runs something on a thread of its own; Join gives its result.
template <class Result>
class Background {
 public:
  template <class Work>
  explicit Background(Work work) : m_thread([this, work] { m_result = work(); }) {}
  Result Join() {
    m_thread.join();
    return m_result;
  }

 private:
  Result m_result{};
  std::thread m_thread;
};

class Interleaving : public ::testing::Test {
 protected:
  void Fill(std::initializer_list<long> keys) {
    for (const long key : keys) {
      m_blocks[key] = m_table.Store(key);
      ASSERT_NE(m_blocks[key], nullptr);
    }
  }
  void ExpectAllFound() {
    for (const auto& [key, block] : m_blocks) {
      EXPECT_EQ(m_table.BlockOf(key), block) << key;
    }
  }
  // The key is created once, whoever offers it, and stands in one place of the newest generation.
  void ExpectCreated(long key, const Offered& creator) {
    EXPECT_EQ(creator.status, Qen::ENTRY_INSERTED);
    EXPECT_EQ(m_table.BlockOf(key), creator.block);
    const Offered again = m_table.Offer(key);
    EXPECT_EQ(again.status, Qen::ENTRY_FOUND);
    EXPECT_EQ(again.block, creator.block);
    unsigned places = 0;
    const Core& newest = *m_table.CurrentGeneration();
    for (unsigned long long i = 0; i < newest.TableSize(); ++i) {
      const Core::Cell& cell = newest.CellAt(i);
      places += cell.LoadKey() == key;
      places += newest.FindMap(i) != nullptr && newest.FindMap(i)->entries.count(key) != 0;
    }
    EXPECT_EQ(places, 1U);
  }

  TestTable m_table;
  std::map<long, unsigned char*> m_blocks;
};

// A claim that no mover can see yet: its cell is not linked, or is an empty home cell that the mover has passed.
TEST_F(Interleaving, AClaimOvertakenByAMoveIsWithdrawnAndMadeAgainInTheNextGeneration) {
  Fill({0});
  Parking claimed("HashCore.Claimed");
  Background<Offered> inserter([&] { return m_table.Offer(8); });
  ASSERT_TRUE(claimed.WaitUntilParked());
  ASSERT_EQ(m_table.CurrentGeneration()->CellAt(1).LoadKey(), 8);
  EXPECT_EQ(m_table.Grow(), KAVO_SUCCESS);
  EXPECT_EQ(m_table.Find(8), nullptr);
  claimed.Release();
  const Offered created = inserter.Join();
  EXPECT_EQ(m_table.FirstGeneration()->CellAt(1).value.State(), Qen::RecordState::VACANT);
  ExpectCreated(8, created);
  ExpectAllFound();
}

// Between claim and block: the mover must wait for the block and take it along, or find the claim withdrawn.
class ClaimAgainstMover : public Interleaving, public ::testing::WithParamInterface<const char*> {};

TEST_P(ClaimAgainstMover, TheKeyIsCreatedOnceAndFoundAfterTheMove) {
  Fill({0, 1, 9});
  Parking parked(GetParam());
  Background<Offered> inserter([&] { return m_table.Offer(8); });
  ASSERT_TRUE(parked.WaitUntilParked());
  EXPECT_EQ(m_table.Find(8), nullptr);
  Parking waiting("Mover.WaitForRecord");
  Background<int> mover([&] { return m_table.Grow(); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  EXPECT_EQ(m_table.Find(8), nullptr);
  ExpectAllFound();
  waiting.Release();
  parked.Release();
  const Offered created = inserter.Join();
  EXPECT_EQ(mover.Join(), KAVO_SUCCESS);
  ExpectCreated(8, created);
  ExpectAllFound();
}

INSTANTIATE_TEST_SUITE_P(Points, ClaimAgainstMover,
                         ::testing::Values("HashCore.Linked", "HashCore.Confirmed", "Driver.Attaching"),
                         [](const auto& param) { return std::string(param.param).substr(9); });

TEST_F(Interleaving, TwoOffersOfOneKeyHaveOneCreatorAndTheOtherWaitsForTheBlock) {
  Fill({0});
  Parking attaching("Driver.Attaching");
  Background<Offered> first([&] { return m_table.Offer(8); });
  ASSERT_TRUE(attaching.WaitUntilParked());
  Parking waiting("Driver.WaitForRecord");
  Background<Offered> second([&] { return m_table.Offer(8); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  attaching.Release();
  const Offered created = first.Join();
  const Offered found = second.Join();
  EXPECT_EQ(found.status, Qen::ENTRY_FOUND);
  EXPECT_EQ(found.block, created.block);
  ExpectCreated(8, created);
}

// The first offer has claimed the cell but not linked it; the second meets it in its probe.
TEST_F(Interleaving, AClaimedCellIsLinkedByWhoeverMeetsIt) {
  Fill({0});
  Parking claimed("HashCore.Claimed");
  Background<Offered> first([&] { return m_table.Offer(8); });
  ASSERT_TRUE(claimed.WaitUntilParked());
  const Offered other = m_table.Offer(16);
  EXPECT_EQ(other.status, Qen::ENTRY_INSERTED);
  EXPECT_EQ(m_table.CurrentGeneration()->CellAt(0).firstLink.Distance(), 1U);
  EXPECT_EQ(m_table.CurrentGeneration()->CellAt(1).nextLink.Distance(), 1U);
  Parking waiting("Driver.WaitForRecord");
  Background<Offered> second([&] { return m_table.Offer(8); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  claimed.Release();
  ExpectCreated(8, first.Join());
  EXPECT_EQ(second.Join().status, Qen::ENTRY_FOUND);
  EXPECT_EQ(m_table.BlockOf(16), other.block);
}

TEST_F(Interleaving, AnOfferLinksTheClaimOfItsOwnKeyThatItMeets) {
  Fill({0});
  Parking claimed("HashCore.Claimed");
  Background<Offered> first([&] { return m_table.Offer(8); });
  ASSERT_TRUE(claimed.WaitUntilParked());
  ASSERT_EQ(m_table.CurrentGeneration()->CellAt(0).firstLink.Distance(), 0U);
  Parking waiting("Driver.WaitForRecord");
  Background<Offered> second([&] { return m_table.Offer(8); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  EXPECT_EQ(m_table.CurrentGeneration()->CellAt(0).firstLink.Distance(), 1U);
  waiting.Release();
  claimed.Release();
  ExpectCreated(8, first.Join());
  EXPECT_EQ(second.Join().status, Qen::ENTRY_FOUND);
}

// A claim in the last free cell, not linked, while another offer finds no room: the map must not get the key too.
TEST_F(Interleaving, AKeyClaimedInTheLastCellIsNotPutIntoTheMapAsWell) {
  Fill({0, 8, 16, 24, 32, 40, 48});
  Parking claimed("HashCore.Claimed");
  Background<Offered> first([&] { return m_table.Offer(56); });
  ASSERT_TRUE(claimed.WaitUntilParked());
  m_blocks[64] = m_table.Store(64);  // makes the map
  ASSERT_EQ(m_table.CurrentGeneration()->MapNum(), 1U);
  Parking waiting("Driver.WaitForRecord");
  Background<Offered> second([&] { return m_table.Offer(56); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  claimed.Release();
  const Offered created = first.Join();
  EXPECT_EQ(second.Join().status, Qen::ENTRY_FOUND);
  ExpectCreated(56, created);
  ExpectAllFound();
}

// The walk along the chain is over, and has seen no map, when the key gets into the last cell and the bucket gets a
// map.
TEST_F(Interleaving, AMapThatAppearsBehindTheWalkIsNotEntered) {
  Fill({0, 8, 16, 24, 32, 40, 48});
  Parking walked("HashCore.Walked");
  Background<Offered> late([&] { return m_table.Offer(56); });
  ASSERT_TRUE(walked.WaitUntilParked());
  Fill({56, 64});
  ASSERT_EQ(m_table.CurrentGeneration()->CellAt(0).flags.Load(), Qen::HCore::MAP_READY);
  walked.Release();
  const Offered found = late.Join();
  EXPECT_EQ(found.status, Qen::ENTRY_FOUND);
  EXPECT_EQ(found.block, m_blocks[56]);
  ExpectAllFound();
}

// Half way through a move every completed key is found, with its block, and present keys are answered without waiting.
class HalfMoved : public Interleaving, public ::testing::WithParamInterface<std::tuple<const char*, unsigned>> {};

TEST_P(HalfMoved, EveryCompletedKeyIsFoundAndANewOneWaitsForItsBucketOnly) {
  const auto& [point, bucket] = GetParam();
  Fill({0, 8, 1, 9, 17, 3, 5});
  Parking parked(point, bucket + 1);
  Background<int> mover([&] { return m_table.Grow(); });
  ASSERT_TRUE(parked.WaitUntilParked());
  ExpectAllFound();
  for (const auto& [key, block] : m_blocks) {
    EXPECT_EQ(m_table.Offer(key).block, block);
  }
  EXPECT_EQ(m_table.Find(24), nullptr);
  Parking waiting("HashCore.WaitForMove");
  Background<Offered> inserter([&, home = static_cast<long>(bucket)] { return m_table.Offer(800 + home); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  parked.Release();
  EXPECT_EQ(mover.Join(), KAVO_SUCCESS);
  ExpectCreated(800 + static_cast<long>(bucket), inserter.Join());
  ExpectAllFound();
}

INSTANTIATE_TEST_SUITE_P(Points, HalfMoved,
                         ::testing::Combine(::testing::Values("Mover.Marked", "Mover.Copied"),
                                            ::testing::Values(0U, 1U, 2U, 7U)),
                         [](const auto& param) {
                           return std::string(std::get<0>(param.param)).substr(6) +
                                  std::to_string(std::get<1>(param.param));
                         });

TEST_F(Interleaving, AMoverWaitsForAMapThatIsBeingBuiltAndTakesItsEntryAlong) {
  Fill({0, 8, 16, 24, 32, 40, 48, 56});
  Parking begun("HashCore.MapBegun");
  Background<Offered> inserter([&] { return m_table.Offer(64); });
  ASSERT_TRUE(begun.WaitUntilParked());
  EXPECT_EQ(m_table.Find(64), nullptr);
  Parking waiting("HashCore.WaitForMap");
  Background<int> mover([&] { return m_table.Grow(); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  begun.Release();
  const Offered created = inserter.Join();
  EXPECT_EQ(mover.Join(), KAVO_SUCCESS);
  ExpectCreated(64, created);
  ExpectAllFound();
}

// The inserter has seen no move; by the time it has the map's lock the bucket is gone.
TEST_F(Interleaving, AMapIsNotEnteredOnceItsBucketMoves) {
  Fill({0, 8, 16, 24, 32, 40, 48, 56, 64});
  const Core::Map& map = *m_table.FirstGeneration()->FindMap(0);
  Parking entering("HashCore.MapEntering");
  Background<Offered> inserter([&] { return m_table.Offer(72); });
  ASSERT_TRUE(entering.WaitUntilParked());
  EXPECT_EQ(m_table.Grow(), KAVO_SUCCESS);
  entering.Release();
  ExpectCreated(72, inserter.Join());
  EXPECT_EQ(map.entries.count(72), 0U);
  ExpectAllFound();
}

TEST_F(Interleaving, AMapThatCannotBeHadIsTakenUpByWhoeverWaitedForIt) {
  Fill({0, 8, 16, 24, 32, 40, 48, 56});
  Parking begun("HashCore.MapBegun");
  Background<Offered> creator([&] {
    Qen::TestHooks::FailAllocation(1);
    const Offered offered = m_table.Offer(64);
    Qen::TestHooks::FailAllocation(0);
    return offered;
  });
  ASSERT_TRUE(begun.WaitUntilParked());
  Parking waiting("HashCore.WaitForMap");
  Background<Offered> joiner([&] { return m_table.Offer(72); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  begun.Release();
  EXPECT_EQ(creator.Join().status, KAVO_FAILED);
  const Offered created = joiner.Join();
  ExpectCreated(72, created);
  EXPECT_EQ(m_table.Find(64), nullptr);
  ExpectAllFound();
}

TEST_F(Interleaving, OfTwoBuildersOneBuildsAndBothMoveOn) {
  Fill({0, 1, 2});
  LogCapture log(Qen::SetLogSink, true);
  Parking building("Chain.Building");
  Background<int> first([&] { return m_table.Grow(); });
  ASSERT_TRUE(building.WaitUntilParked());
  Background<int> second([&] { return m_table.Grow(); });
  while (log.Count("new table is building by other thread, wait until finish") == 0) {
    std::this_thread::yield();
  }
  building.Release();
  EXPECT_EQ(first.Join(), KAVO_SUCCESS);
  EXPECT_EQ(second.Join(), KAVO_SUCCESS);
  EXPECT_EQ(m_table.CurrentGeneration(), m_table.FirstGeneration()->Next());
  EXPECT_EQ(m_table.CurrentGeneration()->Next(), nullptr);
  EXPECT_EQ(log.Count("table[8] is deleted, root is [16]"), 1U);
  ExpectAllFound();
}

TEST_F(Interleaving, ABuilderThatGetsNoMemoryLeavesTheBuildingToTheOther) {
  Fill({0, 1, 2});
  Parking building("Chain.Building");
  Background<int> first([&] {
    Qen::TestHooks::FailAllocation(1);
    const int ret = m_table.Grow();
    Qen::TestHooks::FailAllocation(0);
    return ret;
  });
  ASSERT_TRUE(building.WaitUntilParked());
  Background<int> second([&] { return m_table.Grow(); });
  building.Release();
  EXPECT_EQ(first.Join(), KAVO_NO_MEMORY);
  EXPECT_EQ(second.Join(), KAVO_SUCCESS);
  ExpectAllFound();
}

TEST_F(Interleaving, AChunkGivenBackAfterAFailureIsMovedByWhoeverWaitsForTheEnd) {
  for (long i = 0; i < 30; ++i) {
    Fill({i << 20});
  }
  Parking marked("Mover.Marked");
  Background<int> failing([&] {
    Qen::TestHooks::FailAllocation(4);  // the generation and its cells are had, the map in it is not
    const int ret = m_table.Grow();
    Qen::TestHooks::FailAllocation(0);
    return ret;
  });
  ASSERT_TRUE(marked.WaitUntilParked());
  Parking waiting("Mover.WaitForOthers");
  Background<int> waiter([&] { return m_table.Grow(); });
  ASSERT_TRUE(waiting.WaitUntilParked());
  waiting.Release();
  marked.Release();
  EXPECT_EQ(failing.Join(), KAVO_FAILED);
  EXPECT_EQ(waiter.Join(), KAVO_SUCCESS);
  EXPECT_TRUE(m_table.FirstGeneration()->IsDeleted());
  ExpectAllFound();
}

// The second generation fills, grows and is emptied while buckets of the first are still in place.
TEST_F(Interleaving, AGenerationEmptiedBeforeAnOlderOneIsLeftAfterIt) {
  Fill({0, 4, 5, 6, 7});
  LogCapture log(Qen::SetLogSink, true);
  Parking marked("Mover.Marked", 5);  // buckets 0 to 3 have moved
  Background<int> mover([&] { return m_table.Grow(); });
  ASSERT_TRUE(marked.WaitUntilParked());
  const Core* first = m_table.FirstGeneration();
  const Core* second = first->Next();
  for (long i = 1; !second->IsEmptied(); ++i) {
    ASSERT_LT(i, 100);
    const Offered offered = m_table.Offer(i * 16);
    ASSERT_EQ(offered.status, Qen::ENTRY_INSERTED);
    m_blocks[i * 16] = offered.block;
  }
  EXPECT_EQ(m_table.CurrentGeneration(), first);
  EXPECT_FALSE(second->IsDeleted());
  ExpectAllFound();
  for (const auto& [key, block] : m_blocks) {
    EXPECT_EQ(m_table.Offer(key).block, block);
  }
  marked.Release();
  EXPECT_EQ(mover.Join(), KAVO_SUCCESS);
  EXPECT_TRUE(first->IsDeleted());
  EXPECT_TRUE(second->IsDeleted());
  EXPECT_EQ(m_table.CurrentGeneration(), second->Next());
  EXPECT_EQ(log.Count("table[8] is deleted, root is [16]"), 1U);
  EXPECT_EQ(log.Count("table[16] is deleted, root is [32]"), 1U);
  ExpectAllFound();
}

}  // namespace
}  // namespace KavoTest
