// Batches beside batches: what is promised for a key holds for each key of a batch. A batch of one is a call for one
// key.
#include <gtest/gtest.h>

#include "explorer/batch_run.h"

namespace KavoExplorer {
namespace {

// Keys that differ by 16 have the same home.
const Keys ONE_A_BUCKET = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
const Keys ALL_BUT_ONE_BLOCK = {1, 2, 3, 4, 5, 6, 7};

constexpr BatchTable BASIC = {};
constexpr BatchTable FILTER = {.type = kavo::TableType::FILTER};
constexpr BatchTable GRADUAL = {.mode = kavo::RehashMode::GRADUAL};

TEST(BatchScenarios, KeysThatTwoBatchesShareAreCreatedOnce) {
  ExpectBatchesHold({}, {Offers({0, 16, 0}), Offers({16, 0, 16}), Looks({0, 16, 0})});
}

TEST(BatchScenarios, TheLastRowOfARepeatedKeyStays) {
  ExpectBatchesHold({}, {Puts({0, 16, 0}), Offers({16, 0}), Looks({0, 16})});
}

TEST(BatchScenarios, ANewKeyComesWithItsWholeRow) {
  for (const BatchTable& table : {BASIC, FILTER, GRADUAL}) {
    ExpectBatchesHold({Puts({1})}, {Puts({0, 16}), Puts({32}), Gathers({16, 1, 0, 32})}, table);
    ExpectBatchesHold({Puts(ONE_A_BUCKET)}, {Puts({16, 17}), Gathers({16, 0, 17})}, table);
  }
}

TEST(BatchScenarios, AGrowthInABatchLosesNoKeyOfAnother) {
  for (const BatchTable& table : {BASIC, GRADUAL}) {
    ExpectBatchesHold({Puts(ONE_A_BUCKET)}, {Offers({16, 1, 17}), Offers({17, 16, 0})}, table);
    ExpectBatchesHold({Puts(ONE_A_BUCKET)}, {Offers({16, 17}), Puts({32, 18}), Looks({0, 16, 32})}, table);
  }
}

TEST(BatchScenarios, ACursorGivesEveryKeyAtLeastOnceBesideGrowth) {
  for (const BatchTable& table : {BASIC, FILTER, GRADUAL}) {
    ExpectBatchesHold({Puts(ONE_A_BUCKET)}, {Puts({16, 17}), Walks(), Puts({32})}, table);
  }
}

TEST(BatchScenarios, ABatchWithoutMemoryKeepsWhatItServed) {
  ExpectBatchesHold({Puts(ALL_BUT_ONE_BLOCK)}, {OffersWithoutMemory({1, 0, 16, 32}), Offers({16, 0}), Looks({16, 0})});
  ExpectBatchesHold({Puts(ALL_BUT_ONE_BLOCK)},
                    {OffersWithoutMemory({0, 16}), OffersWithoutMemory({16, 0}), Offers({16})});
}

TEST(BatchScenarios, EveryElementCountsAndOneAdmits) {
  ExpectBatchesHold({Puts({1})}, {Offers({0, 16, 0}, 1), Offers({0, 1, 16}, 1), Looks({0, 1, 16})}, FILTER);
  ExpectBatchesHold({}, {Offers({0, 0}, 1), Offers({0}, 1), Offers({0}, BATCH_FREQ)}, FILTER);
  ExpectBatchesHold({}, {Offers({8}, 1), Offers({8}, 1), Offers({8}, 1)}, FILTER);
}

// The stock is used up, so a block must be allocated; the next occurrence of the key admits.
const std::vector<Batch> NEXT_ADMITS = {Puts({0, 1, 2, 3, 4, 5, 6, 7}), Offers({8, 8}, BATCH_FREQ - 2)};

TEST(BatchScenarios, OneOfTwoThatMayAdmitDoesOrFailsAndKeepsNobodyWaiting) {
  ExpectBatchesHold(NEXT_ADMITS, {Offers({8}, 1), Offers({8}, 1), Looks({8})}, FILTER);
  ExpectBatchesHold(NEXT_ADMITS, {OffersWithoutMemory({8}, 1), Offers({8}, 1), Looks({8})}, FILTER);
  ExpectBatchesHold(NEXT_ADMITS, {OffersWithoutMemory({8}, 1), OffersWithoutMemory({8}, 1), Offers({8}, 1)}, FILTER);
}

}  // namespace
}  // namespace KavoExplorer
