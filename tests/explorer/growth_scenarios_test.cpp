// Growth of a whole table: building, moving, leaving generations, and giving their cells back, beside everything else.
#include <gtest/gtest.h>

#include <vector>

#include "explorer/table_run.h"

namespace KavoExplorer {
namespace {

TEST(WholeTableScenarios, InsertsLookupsAndGrowth) {
  ExpectHolds(Fill({0}), {InOrder({Offer(8), Look(8)}), InOrder({Look(0), Look(8)}), Grow()});
  ExpectHolds(Fill({0}), {Offer(8), Offer(8), Grow()});
}

TEST(WholeTableScenarios, TwoBuildersWithAndWithoutMemory) {
  ExpectHolds(Fill({0, 3}), {Grow(), Grow(), Offer(8)});
  ExpectHolds(Fill(FULL_WITH_MAP), {OfferWithout(16, 3), Offer(9)});
}

TEST(WholeTableScenarios, ThreeOffersMeetTheFullTable) {
  ExpectHolds(Fill(FULL_WITH_MAP), {Offer(9), Offer(16), InOrder({Offer(9), Look(16)})});
}

// The chunk is given back, and whoever waits for the end takes it up.
TEST(WholeTableScenarios, AMoverThatFailsBesideOneThatWaits) {
  ExpectHolds(Fill({0, 8}), {WithFailingMove(0, Grow()), Grow(), Offer(16)});
}

TEST(WholeTableScenarios, TwoGenerationsAreEmptiedAtOnce) {
  ExpectHolds(InOrder({Fill({0, 5}), BuildGenerations(3)}), {MoveGeneration(0), MoveGeneration(1), Offer(8)});
}

TEST(WholeTableScenarios, AReaderFromTheTimeBeforeTwoGrowths) {
  ExpectHolds(Fill({0, 5}), {InOrder({Grow(), Grow()}), InOrder({Look(0), Look(8)}), Offer(8)});
}

TEST(GiveBackScenarios, ALateOfferMeetsCellsThatWereGivenBack) {
  ExpectHolds(Fill({0, 5}), {Grow(), Offer(8), Offer(8)});
  ExpectHolds(Fill({}), {Grow(), Offer(8), InOrder({Offer(8), Look(8)})});
}

TEST(GiveBackScenarios, ALateMapCreatorAndALateGuestOfAMap) {
  ExpectHolds(Fill(FULL), {Grow(), Offer(8)});
  ExpectHolds(Fill(FULL_WITH_MAP), {Grow(), Offer(16), Look(8)});
}

TEST(GiveBackScenarios, ALateMover) {
  ExpectHolds(InOrder({Fill({0}), BuildGenerations(2)}), {Grow(), MoveBucket(0, 0), Offer(8)});
  ExpectHolds(Fill({0}), {Grow(), Grow(), Grow()});
}

TEST(GiveBackScenarios, AWalkKeepsWhatItReads) {
  ExpectHolds(Fill({0, 5}), {Grow(), Walk(), InOrder({Grow(), Walk()})});
}

TEST(GradualScenarios, TwoOffersMeetTheFullTable) {
  ExpectHolds(InOrder({Fill(FULL_WITH_MAP), GradualGrowth()}),
              {InOrder({Offer(9), Look(8)}), InOrder({Offer(16), Look(9)})});
}

TEST(GradualScenarios, ASweepBesideInsertsIntoItsBucketsMayGiveUpAMove) {
  const Call begun = InOrder({Fill({0, 3}), BuildGenerations(2), GradualGrowth()});
  ExpectHolds(begun, {Offer(8), InOrder({Offer(11), Look(8)}), Look(0)});
  ExpectHolds(begun, {WithFailingMove(0, Offer(8)), InOrder({Offer(11), Look(8)})});
}

// The second generation fills while the first has entries: whoever adds the third finishes the first.
TEST(GradualScenarios, TheOldestIsFinishedIntoTheThird) {
  // Bucket 0 of the first is in place, with a map; the keys that fill the second are of other buckets.
  std::vector<Call> calls = {Fill(FULL_WITH_MAP), BuildGenerations(2), GradualGrowth()};
  for (unsigned long long bucket = 1; bucket < 8; ++bucket) {
    calls.push_back(MoveBucket(0, bucket));
  }
  for (long key = 17; key < 25; ++key) {
    calls.push_back(key % 8 != 0 ? Fill({key}) : Fill({}));
  }
  calls.push_back(FillGeneration(1, 33));
  const Call secondIsFull = InOrder(calls);
  ExpectHolds(secondIsFull, {Offer(49), Offer(16), Look(8)});
  ExpectHolds(secondIsFull, {Offer(49), InOrder({Offer(50), Look(49)})});
}

}  // namespace
}  // namespace KavoExplorer
