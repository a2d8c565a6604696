#include "kavo.hpp"

#include <gtest/gtest.h>

#include <map>
#include <numeric>
#include <random>
#include <set>

namespace {

constexpr unsigned ID = 7;
constexpr long MAX_KEY = std::numeric_limits<long>::max();
const std::array<float, 2> ROW{1.5F, -2.0F};

kavo::Error ErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const kavo::Error& error) {
    return error;
  }
  return {"no function", std::nullopt, kavo::Status::SUCCESS};
}

// Frozen: mixed keys stand in files.
TEST(MixKey, AnswersAreWhatTheyEverWere) {
  constexpr long ONE = kavo::MixKey(kavo::UnmixKey(kavo::MixKey(1)));
  EXPECT_EQ(ONE, 0x2380F76DFA2EC705);
  EXPECT_EQ(kavo::MixKey(-1), kavo::MixKey(MAX_KEY));
  EXPECT_EQ(kavo::MixKey(4242), 0x49DE0182DE2C1C4D);
  EXPECT_EQ(kavo::MixKey(MAX_KEY), 0x5A682AFE7965DEBD);
  std::mt19937_64 random(1);
  for (int i = 0; i < 100'000; ++i) {
    const long key = static_cast<long>(random() >> 1);
    ASSERT_EQ(kavo::UnmixKey(kavo::MixKey(key)), key);
    ASSERT_EQ(kavo::MixKey(kavo::UnmixKey(key)), key);
  }
}

TEST(KavoHpp, OrdinaryAnswersAreNoErrorsAndErrorsSayWhatFailed) {
  const kavo::Table table(ID, 8, sizeof(ROW));
  EXPECT_FALSE(table.TryLookup(1));
  EXPECT_FALSE(table.TryLookupForUpdate(1));
  EXPECT_FALSE(table.TryUpdate(1, ROW));
  EXPECT_TRUE(table.TryInsert(1, ROW));
  EXPECT_FALSE(table.TryInsert(1, std::vector<float>{7, 7}));
  EXPECT_FALSE(table.LookupOrInsert<float>(1).created);
  EXPECT_TRUE(std::ranges::equal(table.Lookup<float>(1), ROW));
  EXPECT_TRUE(table.TryUpdate(1, std::vector<float>{3, 4}));
  EXPECT_EQ(table.TryLookup<float>(1)->back(), 4.0F);
  EXPECT_TRUE(table.LookupOrInsert<float>(2).created);
  EXPECT_EQ(table.Lookup<float>(2)[1], 0.0F);
  table.InsertOrUpdate(2, ROW);
  EXPECT_EQ(table.Lookup<float>(2)[1], -2.0F);

  const std::array<float, 1> small{};
  struct {
    const char* function;
    std::function<void()> call;
  } const cases[] = {
      {"KavoLookup", [&] { table.Lookup(3); }},
      {"KavoLookup", [&] { table.TryLookup(-3); }},
      {"KavoLookupForUpdate", [&] { table.LookupForUpdate(3); }},
      {"KavoUpdate", [&] { table.Update(3, ROW); }},
      {"KavoUpdate", [&] { table.TryUpdate(1, small); }},
      {"KavoInsert", [&] { table.Insert(1, ROW); }},
      {"KavoInsert", [&] { table.TryInsert(1, small); }},
      {"KavoInsert", [&] { table.TryInsertCounted(3, 1); }},
      {"KavoLookupOrInsert", [&] { table.LookupOrInsert(-1); }},
      {"KavoSetFilterFreq", [&] { table.SetFilterFrequency(2); }},
  };
  for (const auto& [function, call] : cases) {
    const kavo::Error error = ErrorOf(call);
    EXPECT_STREQ(error.Function(), function);
    EXPECT_EQ(error.Table(), ID) << function;
    EXPECT_EQ(error.Cause(), kavo::Status::INVALID) << function;
  }
  EXPECT_EQ(std::string(ErrorOf([] { kavo::Table(ID, 8, 8); }).what())
                .find("KavoInitHashTable on table 7 answered -2 (KAVO_EXISTS"),
            0U);
  using Three = std::array<char, 3>;
  EXPECT_THROW(table.Lookup<Three>(1), std::length_error);
}

TEST(KavoHpp, ATableLivesAsLongAsItsOwner) {
  {
    kavo::Table table(ID, 8, 8);
    table.LookupOrInsert(5);
    kavo::Table other(ID + 1, 8, 8);
    other = std::move(table);
    EXPECT_EQ(other.Id(), ID);
    EXPECT_EQ(KavoInitHashTable(ID + 1, 8, 8, 0), KAVO_SUCCESS);  // what `other` was before is gone already
    EXPECT_EQ(other.Release(), ID);
  }
  EXPECT_EQ(ErrorOf([] { kavo::Table::Adopt(ID, 12); }).Cause(), kavo::Status::INVALID);
  EXPECT_EQ(ErrorOf([] { kavo::Table::Adopt(ID + 2, 8); }).Cause(), kavo::Status::INVALID);
  {
    const kavo::Table adopted = kavo::Table::Adopt(ID, 8);
    EXPECT_TRUE(adopted.TryLookup(5));
    kavo::Table::Adopt(ID + 1, 8).Destroy();
  }
  EXPECT_EQ(KavoUninitHashTable(ID), KAVO_INVALID);
  EXPECT_EQ(KavoUninitHashTable(ID + 1), KAVO_INVALID);
}

TEST(KavoHpp, BatchesTakeSpansOfTheRightLengths) {
  const kavo::Table table(ID, 8, sizeof(ROW));
  const std::array<long, 3> keys{1, 2, 1000};
  table.BatchInsertOrUpdate(std::span(keys).first(2), std::array{ROW, ROW});
  std::array<unsigned char*, 3> values{};
  EXPECT_EQ(table.BatchLookup(keys, values), 2U);
  EXPECT_EQ(table.At<float>(values[1])[1], ROW[1]);
  EXPECT_FALSE(table.At<float>(values[2]));
  std::array<unsigned, 3> isFind{};
  table.BatchLookupOrInsert(keys, values, isFind);
  EXPECT_EQ(isFind, (std::array<unsigned, 3>{1, 1, 0}));
  std::array<float, 5> tooShort{};
  EXPECT_THROW(table.BatchGather(keys, tooShort), std::length_error);
  EXPECT_THROW(table.BatchLookup(keys, std::span(values).first(1)), std::length_error);
  EXPECT_EQ(table.BatchLookup({}, {}), 0U);
  EXPECT_EQ(kavo::Error("f", ID, kavo::Status::NO_MEMORY, 17).Done(), 17U);
}

TEST(KavoHpp, AnExportGivesEachEntryOnceWhateverTheBatches) {
  for (const unsigned batch : {1U, 2U, 7U, 100U, 512U}) {
    const kavo::Table table(ID, 8, 8, kavo::TableType::FILTER);
    table.SetFilterFrequency(2);
    for (long key = 0; key < 100; ++key) {
      table.LookupOrInsert(key, key % 3 == 0 ? 1 : 2);
    }
    for (const auto mode : {kavo::ExportMode::ALL, kavo::ExportMode::UNMARKED_MARK, kavo::ExportMode::MARKED}) {
      std::map<long, unsigned> counts;
      for (const KavoHtBatchElement& entry : table.Export(mode, batch)) {
        EXPECT_TRUE(counts.emplace(entry.key, entry.count).second) << entry.key;
        EXPECT_EQ(entry.value == nullptr, entry.key % 3 == 0);
      }
      EXPECT_EQ(counts.size(), 100U) << batch;
      EXPECT_EQ(counts[50], 2U);
    }
    EXPECT_EQ(table.CountEntries(true), 66U);
  }
  // What changed after a marking export gave it is given again, or the change would be in no export.
  const kavo::Table table(ID, 8, 8);
  for (long key = 0; key < 10; ++key) {
    table.LookupOrInsert(key);
  }
  std::multiset<long> given;
  for (const KavoHtBatchElement& entry : table.Export(kavo::ExportMode::UNMARKED_MARK, 5)) {
    if (given.insert(entry.key); given.size() == 5) {
      table.LookupForUpdate(entry.key);
    }
  }
  EXPECT_EQ(given.size(), 11U);
}

TEST(KavoHpp, PreparedValuesPartitionMapAndLogAreReached) {
  std::vector<std::string> lines;
  {
    const kavo::LogSink sink([&lines](const kavo::LogLine& line) { lines.emplace_back(line.Text()); });
    const kavo::Table table(ID, 20, sizeof(ROW));
    EXPECT_EQ(table.PrepareValues(), 20U);
    table.PreparedValue<float>(0)[1] = 9.0F;
    const auto [row, created] = table.LookupOrInsert<float>(3);
    EXPECT_FALSE(created);
    EXPECT_EQ(row[1], 9.0F);
    EXPECT_EQ(table.Stats().generations, 1U);
    table.SetRehashMode(kavo::RehashMode::GRADUAL);
    EXPECT_EQ(lines.size(), 0U);
    table.TryLookup(4);
    EXPECT_EQ(lines.size(), 1U);
    EXPECT_NE(lines.back().find("LookUpWithValLen failed, ret[-4] != 0\r\n"), std::string::npos);

    const std::array<unsigned, 3> ids{10, 20, 30};
    const kavo::PartitionMap map(1, ids);
    EXPECT_EQ(map.Owner(4), 20U);
    const std::array<unsigned long long, 2> keys{3, 5};
    std::array<unsigned, 2> owners{};
    map.Route(keys, owners);
    EXPECT_EQ(owners, (std::array<unsigned, 2>{10, 30}));
    EXPECT_EQ(ErrorOf([&ids] { kavo::PartitionMap(2, ids); }).Table(), std::nullopt);
  }
  EXPECT_EQ(UninitPartitionMap(), KAVO_UNSUPPORTED);
  const std::size_t before = lines.size();
  KavoUninitHashTable(ID);
  EXPECT_EQ(lines.size(), before);
}

}  // namespace
