// Inserts of one bucket beside each other, with room in the cells, and in the overflow map.
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "explorer/table_run.h"

namespace KavoExplorer {
namespace {

// Of 8 cells: 0, 8, 16 and so on have the same home.

TEST(InsertScenarios, TwoOffersOfOneKeyInAnEmptyTableOrBehindAnother) {
  ExpectHolds(Fill({}), {Offer(8), Offer(8), Look(8)});
  ExpectHolds(Fill({0}), {Offer(8), Offer(8), Look(8)});
}

TEST(InsertScenarios, TwoKeysOfABucketOneOfThemTwice) {
  ExpectHolds(Fill({0}), {Offer(8), Offer(16), Offer(8)});
}

// The chain grows while a probe is under way behind its end.
TEST(InsertScenarios, AProbeBesideOneThatAppends) {
  ExpectHolds(Fill({0, 1}), {InOrder({Offer(8), Offer(16)}), InOrder({Offer(24), Look(24), Offer(16)})});
}

// The last cell within reach goes to a key of the bucket, and what is behind it comes within reach.
TEST(InsertScenarios, AProbeWhoseEndMovesOn) {
  constexpr long REACH = 128;  // HCore::LINEAR_SEARCH_LEN
  std::vector<long> others(REACH);
  std::iota(others.begin(), others.end(), 1);
  others.back() = 0;
  ExpectHolds(Fill(others), {InOrder({Claim(256), Claim(512)}), Claim(512)}, 256);
}

// 15 has taken the home cell of bucket 0.
TEST(InsertScenarios, KeysWhoseHomeCellIsTaken) {
  ExpectHolds(Fill({7, 15}), {Offer(0), Offer(8), Offer(0)});
}

TEST(InsertScenarios, AFailedInsertIsTakenOver) {
  ExpectHolds(Fill({0}), {OfferFailing(8), Offer(8), InOrder({Look(8), Offer(8)})});
}

// Each creates the map or joins it, and then grows.
TEST(MapScenarios, OneOrTwoKeysForWhichThereIsNoCell) {
  ExpectHolds(Fill(FULL), {Offer(8), Offer(8)});
  ExpectHolds(Fill(FULL), {Offer(8), Offer(16)});
  ExpectHolds(Fill(FULL), {Offer(8), Offer(16), Look(0)});
}

// The last cell goes to one of two keys of the bucket, the other needs a map.
TEST(MapScenarios, TheLastCellBesideTheFirstMap) {
  ExpectHolds(Fill({0, 1, 2, 3, 4, 5, 6}), {Claim(8), Claim(16), Claim(8)});
  ExpectHolds(Fill({0, 1, 2, 3, 4, 5, 6}), {Offer(8), Offer(16), Offer(8)});
}

TEST(MapScenarios, OneKeyTwiceIntoAMapThatIsThere) {
  ExpectHolds(Fill(FULL_WITH_MAP), {Offer(16), Offer(16), Look(8)});
  ExpectHolds(Fill(FULL_WITH_MAP), {OfferFailing(16), Offer(16)});
}

TEST(MapScenarios, AMapThatCannotBeHad) {
  ExpectHolds(Fill(FULL), {OfferWithout(8, 1), Offer(8)});
  ExpectHolds(Fill(FULL), {OfferWithout(8, 2), Offer(16)});
}

TEST(MapScenarios, AMapThatMayNotBeHadBesideTheMoveOfItsBucket) {
  ExpectHolds(InOrder({Fill(FULL), BuildGenerations(2)}), {Offer(8), MoveBucket(0, 0)});
  ExpectHolds(InOrder({Fill(FULL), BuildGenerations(2)}), {Offer(8), Offer(8), MoveBucket(0, 0)});
  ExpectHolds(InOrder({Fill(FULL_WITH_MAP), BuildGenerations(2)}), {Offer(16), MoveBucket(0, 0)});
  ExpectHolds(InOrder({Fill(FULL_WITH_MAP), BuildGenerations(2)}), {Offer(16), Look(8), MoveBucket(0, 0)});
  ExpectHolds(InOrder({Fill(FULL), BuildGenerations(2)}), {OfferWithout(8, 1), Offer(16), MoveBucket(0, 0)});
}

}  // namespace
}  // namespace KavoExplorer
