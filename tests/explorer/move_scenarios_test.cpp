// Inserts, lookups and updates beside the move of their bucket.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "explorer/table_run.h"

namespace KavoExplorer {
namespace {

Call InPlace(std::vector<long> keys, unsigned generations = 2) {
  return InOrder({Fill(std::move(keys)), BuildGenerations(generations)});
}

TEST(MoveScenarios, OneKeyTwice) {
  ExpectHolds(InPlace({}), {Offer(8), Offer(8), MoveBucket(0, 0)});
  ExpectHolds(InPlace({0}), {Offer(8), Offer(8), MoveBucket(0, 0)});
  // The home cell is taken.
  ExpectHolds(InPlace({7, 15}), {Offer(8), Offer(8), InOrder({MoveBucket(0, 0), MoveBucket(0, 7)})});
}

TEST(MoveScenarios, TwoKeysOfTheBucketAndALookup) {
  ExpectHolds(InPlace({0}), {Offer(8), Offer(16), MoveBucket(0, 0)});
  ExpectHolds(InPlace({0}), {Offer(8), InOrder({Look(8), Look(0)}), MoveBucket(0, 0)});
  ExpectHolds(InPlace({0}), {InOrder({Offer(8), Look(8)}), InOrder({Offer(16), Look(0)}), MoveBucket(0, 0)});
}

// A late claim of an empty home cell, which no mover would have looked at.
TEST(MoveScenarios, InsertIntoAnEmptyBucket) {
  ExpectHolds(InPlace({}), {Offer(2), Look(2), MoveBucket(0, 2)});
}

TEST(MoveScenarios, TwoMovers) {
  ExpectHolds(InPlace({0}), {Offer(8), MoveBucket(0, 0), MoveBucket(0, 0)});
  ExpectHolds(InPlace({0, 8}), {InOrder({Look(8), Offer(16)}), MoveBucket(0, 0), MoveBucket(0, 0)});
}

TEST(MoveScenarios, AMoveThatIsGivenUpAndRepeated) {
  ExpectHolds(InPlace({0}), {Offer(8), Offer(8), WithFailingMove(2, MoveBucket(0, 0))});
  ExpectHolds(InPlace({0}), {Offer(8), InOrder({WithFailingMove(1, MoveBucket(0, 0)), MoveBucket(0, 0)}), Look(8)});
}

TEST(MoveScenarios, AFailedInsertIsLeftBehind) {
  ExpectHolds(InPlace({0}), {OfferFailing(8), Offer(8), MoveBucket(0, 0)});
  ExpectHolds(InPlace({}), {OfferFailing(8), InOrder({Look(8), Offer(8)}), MoveBucket(0, 0)});
}

TEST(MoveScenarios, TheNextGenerationMovesToo) {
  ExpectHolds(InPlace({0}, 3), {Offer(8), MoveBucket(0, 0), MoveBucket(1, 8)});
  ExpectHolds(InPlace({0, 8}, 3),
              {InOrder({Look(8), Offer(16)}), MoveBucket(0, 0), InOrder({MoveBucket(1, 0), MoveBucket(1, 8)})});
  ExpectHolds(InPlace({0}, 3), {Offer(16), Offer(16), InOrder({MoveBucket(0, 0), MoveBucket(1, 0)})});
}

TEST(MoveScenarios, BothMovesAreGivenUp) {
  ExpectHolds(InPlace({0}, 3),
              {InOrder({Offer(8), Look(8)}), InOrder({WithFailingMove(1, MoveBucket(0, 0)), MoveBucket(0, 0)}),
               InOrder({WithFailingMove(2, MoveBucket(1, 8)), MoveBucket(1, 8)})});
}

TEST(MoveScenarios, StraightIntoTheThirdGeneration) {
  ExpectHolds(InPlace({0, 8}, 3), {Offer(16), InOrder({Look(8), Look(16)}), MoveBucketOverMiddle(0)});
  ExpectHolds(InPlace({0}, 3), {Offer(8), Offer(8), MoveBucketOverMiddle(0)});
  // A move that was given up has left copies in the generation between.
  ExpectHolds(InPlace({0}, 3), {Offer(8), InOrder({WithFailingMove(1, MoveBucket(0, 0)), MoveBucketOverMiddle(0)}),
                                InOrder({Look(8), Look(0)})});
  ExpectHolds(InPlace({0}, 3), {Offer(8), WithFailingMove(1, MoveBucket(0, 0)), MoveBucketOverMiddle(0)});
}

}  // namespace
}  // namespace KavoExplorer
