// Full snapshots, increments and loading, in one thread.
#include <array>
#include <numeric>

#include "kavo.hpp"
#include "snapshot/progress.h"
#include "snapshot/snapshot_support.h"
#include "support/seed.h"

namespace SnapshotTest {
namespace {

struct Kind {
  unsigned optimiser;
  unsigned admission;
  unsigned counts;
  unsigned compress;
};

class Chain : public ::testing::TestWithParam<Kind> {};

// After each snapshot what is loaded is the live embedding, removals and counts included, and a serving handle that
// follows the increments is what one is that is loaded anew.
TEST_P(Chain, LoadedOrFollowedIsTheLiveOne) {
  const OwnFolder folder;
  Trainer trainer(KavoTest::TestSeed());
  KavoEmbeddingOptions options = Defaults(5, GetParam().optimiser);
  options.admission = GetParam().admission;
  options.counts = GetParam().counts;
  options.expected = 100;
  options.threads = 2;
  const Handle live = Make(options);
  options.seed = 999;
  const KavoEmbeddingOptions served = Defaults(5, KAVO_OPTIMISER_NONE);
  Handle serving;
  unsigned long long number = 1;
  const auto update = [&](unsigned long long to) {
    const KavoSnapshotItem item = Item("rows", serving.get());
    number = to;
    return KavoSnapshotUpdate(folder.Path().c_str(), &number, &item, 1, nullptr, nullptr);
  };
  for (unsigned long long snapshot = 1; snapshot <= 5; ++snapshot) {
    trainer.Step(live.get(), 500);
    const long gone = trainer.Forget(live.get());
    Must(Save(folder.Path(), snapshot == 1 ? KAVO_SNAPSHOT_FULL : KAVO_SNAPSHOT_INCREMENT, live.get(),
              GetParam().compress));
    if (snapshot == 1 || options.counts == 0) {  // increments have no count of a row that was only offered
      const Handle loaded = Loaded(folder.Path(), options);
      ASSERT_EQ(Contents(loaded.get()), Contents(live.get())) << "snapshot " << snapshot;
      EXPECT_EQ(Lookup(loaded, {5'555'555}, 5), Lookup(live, {5'555'555}, 5)) << "starts are those of the seed";
    }
    if (snapshot % 2 == 1) {  // two increments at a time
      const Handle fresh = Loaded(folder.Path(), served, 1, 2);
      serving = snapshot == 1 ? Loaded(folder.Path(), served, 1, 2) : std::move(serving);
      Must(update(0));
      EXPECT_EQ(number, snapshot);
      ASSERT_EQ(Contents(serving.get()), Contents(fresh.get())) << "snapshot " << snapshot;
      EXPECT_EQ(serving->Rows(), fresh->Rows());
    }
    // Some of the forgotten come back: removed in one increment, and a row in the next.
    Forward(live, std::vector<long>(snapshot % 2, gone), 5);
  }
  Must(Save(folder.Path(), KAVO_SNAPSHOT_FULL, live.get()));
  Must(update(0));
  EXPECT_EQ(number, 5U) << "a new chain is not theirs";
  EXPECT_EQ(update(6), KAVO_REFUSED_FILE);
}

INSTANTIATE_TEST_SUITE_P(, Chain,
                         ::testing::Values(Kind{KAVO_OPTIMISER_SGD, 0, 0, 0}, Kind{KAVO_OPTIMISER_ADAM, 3, 0, 3},
                                           Kind{KAVO_OPTIMISER_FTRL, 2, 1, 1}, Kind{KAVO_OPTIMISER_ADAGRAD, 0, 1, 0}));

// Steps of an embedding that trains and follows do not go back, and no increment of its own leaves out what it trained.
TEST(Update, BesideTrainingKeepsWhatWasTrained) {
  const OwnFolder folder;
  Trainer trainer(1);
  const Handle live = Make(Small(KAVO_OPTIMISER_SGD));
  trainer.Step(live.get(), 20);
  Must(Save(folder.Path(), KAVO_SNAPSHOT_FULL, live.get()));
  const Handle follower = Loaded(folder.Path(), Small(KAVO_OPTIMISER_SGD));
  trainer.Step(live.get(), 20);
  Must(Save(folder.Path(), KAVO_SNAPSHOT_INCREMENT, live.get()));
  for (int i = 0; i < 5; ++i) {
    trainer.Step(follower.get(), 20);
  }
  const KavoSnapshotItem item = Item("rows", follower.get());
  unsigned long long number = 0;
  Must(KavoSnapshotUpdate(folder.Path().c_str(), &number, &item, 1, nullptr, nullptr));
  EXPECT_EQ(follower->Clock().Steps(), 6U);
  EXPECT_EQ(Save(folder.Path(), KAVO_SNAPSHOT_INCREMENT, follower.get()), KAVO_INVALID);
  Must(Save(folder.Path(), KAVO_SNAPSHOT_FULL, follower.get()));
  Must(Save(folder.Path(), KAVO_SNAPSHOT_INCREMENT, follower.get()));
  std::filesystem::create_symlink("nowhere", folder.Path("manifest-0000000005"));  // as if it went while it was read
  number = 0;
  EXPECT_EQ(KavoSnapshotUpdate(folder.Path().c_str(), &number, &item, 1, nullptr, nullptr), KAVO_REFUSED_FILE);
}

// A key that was counted, admitted and moved while it was being saved stands in the file as both: counted in the first
// part, a row in the second.
TEST(Shards, ARowCountsMoreThanThatItsKeyWasCounted) {
  const OwnFolder folder;
  KavoEmbeddingOptions options = Small(KAVO_OPTIMISER_SGD, 9);
  options.counts = 1;
  const Handle counted = Make(options);
  const Handle admitted = Make(options);
  const long key = 42;
  const float row[2] = {1, 2};
  Forward(counted, {key}, 2);
  Must(KavoEmbeddingSetRows(admitted.get(), &key, 1, row));
  const KavoSaveOptions saving = Options(KAVO_SNAPSHOT_FULL, 2);
  KavoSave* save = nullptr;
  Must(KavoSnapshotBegin(folder.Path().c_str(), &saving, &save));
  for (unsigned part = 0; part < 2; ++part) {
    const KavoSnapshotItem item = Item("rows", (part == 0 ? counted : admitted).get());
    Must(KavoSnapshotPart(save, part, &item, 1, nullptr, nullptr));
  }
  Must(KavoSnapshotCommit(save, nullptr, 0));
  EXPECT_EQ(RecordsOf(folder.Path()).size(), 2U);
  EXPECT_EQ(Lookup(Loaded(folder.Path(), options), {key}, 2, KAVO_ABSENT_ZEROS), (std::vector<float>{1, 2}));
}

// Marks of saves come again after 255 of them. A row that was last taken so long ago is not mistaken for taken.
TEST(Marks, RowsAreTakenAlsoWhenMarksComeAgain) {
  const OwnFolder folder;
  const Handle live = Make(2, KAVO_OPTIMISER_SGD);
  std::vector<long> keys(10);
  std::vector<float> rows(20);
  std::iota(keys.begin(), keys.end(), -5);
  Must(KavoEmbeddingSetRows(live.get(), keys.data(), keys.size(), rows.data()));
  Must(Save(folder.Path(), KAVO_SNAPSHOT_FULL, live.get()));
  Must(KavoEmbeddingBackward(live.get(), keys.data(), 0, rows.data(), 1, nullptr));  // a step later
  Must(Save(folder.Path(), KAVO_SNAPSHOT_INCREMENT, live.get()));
  live->Snapshots().mark = 252;  // as after so many increments without these rows, whose mark is 1
  for (const long key : keys) {
    Must(KavoEmbeddingSetRows(live.get(), &key, 1, rows.data()));
    Must(KavoEmbeddingBackward(live.get(), keys.data(), 0, rows.data(), 1, nullptr));
    Must(Save(folder.Path(), KAVO_SNAPSHOT_INCREMENT, live.get()));
    ASSERT_EQ(RecordsOf(folder.Path()).size(), 1U) << "mark " << live->Snapshots().mark;
  }
}

class Tables : public ::testing::TestWithParam<kavo::TableType> {};

// Of each key its value, or, where it has none, its occurrences.
std::map<long, std::vector<unsigned>> EntriesOf(const kavo::Table& table) {
  std::map<long, std::vector<unsigned>> entries;
  for (const KavoHtBatchElement& entry : table.Export(kavo::ExportMode::ALL)) {
    const auto row = table.At<unsigned>(entry.value);
    entries[entry.key] = row.empty() ? std::vector<unsigned>{entry.count} : std::vector(row.begin(), row.end());
  }
  return entries;
}

TEST_P(Tables, FullAndIncrementsEqualTheLiveOne) {
  const OwnFolder folder;
  std::mt19937_64 random(KavoTest::TestSeed());
  const kavo::Table live(1, 100, 12, GetParam());
  for (unsigned round = 0; round < 3; ++round) {
    for (unsigned i = 0; i < 500; ++i) {
      const long key = static_cast<long>(random() % 2000 << 32 | random() % 7);
      if (GetParam() == kavo::TableType::FILTER && i % 2 == 0) {
        live.LookupOrInsert(key, 60);
      } else {
        live.InsertOrUpdate(key, std::array{i, i + 1, i + 2}, 5);
      }
    }
    const KavoSaveOptions options = Options(round == 0 ? KAVO_SNAPSHOT_FULL : KAVO_SNAPSHOT_INCREMENT);
    Must(Save(folder.Path(), options, Item("table", nullptr, 1), std::string("position", round)));
    EXPECT_EQ(round != 0, RecordsOf(folder.Path()).size() < EntriesOf(live).size());
  }
  std::map<long, std::vector<unsigned>> together;
  for (unsigned shard = 0; shard < 2; ++shard) {
    const kavo::Table loaded(2, 100, 12, GetParam());
    Must(Load(folder.Path(), Item("table", nullptr, 2), shard, 2));
    for (const auto& [key, entry] : EntriesOf(loaded)) {
      EXPECT_EQ((key >> 32) % 2, shard);
      together[key] = entry;
    }
  }
  EXPECT_TRUE(together == EntriesOf(live)) << together.size() << ", not " << EntriesOf(live).size();
  EXPECT_EQ(BlobOf(folder.Path(), 2), "po");
}

INSTANTIATE_TEST_SUITE_P(, Tables, ::testing::Values(kavo::TableType::BASIC, kavo::TableType::FILTER));

TEST(Folders, OneSaverAtATimeAndOldChainsGo) {
  const OwnFolder folder;
  const Handle live = Make(2, KAVO_OPTIMISER_SGD);
  Trainer trainer(1);
  const KavoSnapshotItem item = Item("rows", live.get());
  for (const unsigned kind : {0U, 1U, 0U, 1U, 0U, 1U}) {
    trainer.Step(live.get(), 20);
    Must(Save(folder.Path(), Options(kind, 1, 2), item));
  }
  EXPECT_EQ(Qen::Folder(folder.Path()).Numbers(), (std::vector<std::uint64_t>{3, 4, 5, 6}));
  EXPECT_EQ(FilesIn(folder.Path()), 9) << "4 manifests, 4 parts, lock";

  KavoSave* saves[2] = {};
  const KavoSaveOptions options = Options(KAVO_SNAPSHOT_FULL);
  Must(KavoSnapshotBegin(folder.Path().c_str(), &options, &saves[0]));
  EXPECT_EQ(KavoSnapshotBegin(folder.Path().c_str(), &options, &saves[1]), KAVO_BUSY);
  Must(KavoSnapshotPart(saves[0], 0, &item, 1, nullptr, nullptr));
  // In a child the save is no save, and ending it there neither unlocks the folder nor clears it.
  EXPECT_EQ(InAChild([&] {
              return KavoSnapshotPart(saves[0], 0, &item, 1, nullptr, nullptr) == KAVO_INVALID &&
                             KavoSnapshotAbort(saves[0]) == KAVO_INVALID
                         ? 0
                         : 1;
            }),
            0);
  EXPECT_EQ(KavoSnapshotBegin(folder.Path().c_str(), &options, &saves[1]), KAVO_BUSY);
  EXPECT_EQ(FilesIn(folder.Path()), 10);
  const OwnFolder other;
  EXPECT_EQ(Save(other.Path(), KAVO_SNAPSHOT_FULL, live.get()), KAVO_BUSY) << "the embedding is in the first";
  // A worker that has joined does not know that the save was given up, and another one has its number.
  unsigned long long number = 0;
  unsigned long long id = 0;
  Must(KavoSnapshotIdentity(saves[0], &number, &id));
  Must(KavoSnapshotJoin(folder.Path().c_str(), &options, number, id, &saves[1]));
  Must(KavoSnapshotAbort(saves[0]));
  EXPECT_EQ(FilesIn(folder.Path()), 9);
  Must(Save(folder.Path(), KAVO_SNAPSHOT_INCREMENT, live.get()));
  Must(KavoSnapshotPart(saves[1], 0, &item, 1, nullptr, nullptr));
  EXPECT_EQ(KavoSnapshotCommit(saves[1], nullptr, 0), KAVO_INVALID);
  Must(Save(folder.Path(), KAVO_SNAPSHOT_INCREMENT, live.get()));
  EXPECT_EQ(FilesIn(folder.Path()), 13) << "6 manifests, 6 parts, lock";
  EXPECT_EQ(Contents(Loaded(folder.Path(), Defaults(2, KAVO_OPTIMISER_SGD)).get()), Contents(live.get()));
  // The newest goes while it is read, since a newer one is there.
  const Qen::Folder snapshots(folder.Path());
  const Qen::Manifest newest = snapshots.ReadNewest(0, [&](std::uint64_t found) {
    Must(found == 8 ? Save(folder.Path(), Options(KAVO_SNAPSHOT_FULL, 1, 1), item) : KAVO_SUCCESS);
    return snapshots.Read(found);
  });
  EXPECT_EQ(newest.header.identity.number, 9U);
  // Bytes of the caller's alone.
  Must(KavoSnapshotSave(folder.Path().c_str(), &options, nullptr, 0, "new", 3, nullptr, nullptr, nullptr));
  Must(KavoSnapshotLoad(folder.Path().c_str(), 0, nullptr, 0, 0, 1, nullptr, nullptr));
  EXPECT_EQ(BlobOf(folder.Path(), 3), "new");
}

// What ends a load after all was verified leaves an embedding as empty as it was; what ends a save, nothing.
TEST(Progress, EndsACallAndTheStateBeforeStays) {
  const OwnFolder folder;
  const Handle live = Make(2, KAVO_OPTIMISER_SGD);
  Trainer(1).Step(live.get(), 200);
  Must(Save(folder.Path(), KAVO_SNAPSHOT_FULL, live.get()));
  struct Counter {
    int left;
    unsigned long long done;
    unsigned long long total;
  };
  const auto count = [](void* context, unsigned long long done, unsigned long long total) {
    auto& counter = *static_cast<Counter*>(context);
    EXPECT_GT(done, std::exchange(counter.done, done));
    counter.total = total;
    return counter.left-- == 0 ? 1 : 0;
  };
  Counter now{0, 0, 0};
  EXPECT_EQ(Save(folder.Path(), Options(KAVO_SNAPSHOT_FULL), Item("rows", live.get()), "", count, &now), KAVO_FAILED);
  EXPECT_EQ(Qen::Folder(folder.Path()).Numbers().size(), 1U);
  const Handle loaded = Make(2, KAVO_OPTIMISER_SGD);
  int status = KAVO_FAILED;
  int calls = 0;
  for (; status != KAVO_SUCCESS; ++calls) {
    Counter ends{calls, 0, 0};
    status = Load(folder.Path(), Item("rows", loaded.get()), 0, 1, 0, count, &ends);
    ASSERT_TRUE(status == KAVO_SUCCESS ? ends.done == ends.total : status == KAVO_FAILED && loaded->Rows() == 0);
    ASSERT_EQ(status != KAVO_SUCCESS, Contents(loaded.get()).empty());
  }
  EXPECT_GT(calls, 2) << "verified, then installed";
  EXPECT_EQ(Contents(loaded.get()), Contents(live.get()));
}

TEST(Progress, IsNotCalledAgainOnceItHasEndedACall) {
  int calls = 0;
  Qen::Progress progress(
      [](void* context, unsigned long long, unsigned long long) { return ++*static_cast<int*>(context); }, &calls);
  for (int thread = 0; thread < 2; ++thread) {
    EXPECT_THROW(progress.Add(1), Qen::Failure);
  }
  EXPECT_EQ(calls, 1);
}

// A table keeps its retired memory as long as a walk over it is open.
TEST(Progress, ThatEndsASaveEndsItsWalk) {
  const OwnFolder folder;
  KavoEmbeddingOptions options = Small(KAVO_OPTIMISER_SGD);
  options.dim = 16;
  const Handle live = Make(options);
  const kavo::Table table(1, 100, 64);
  const auto grow = [&](long num) {
    std::vector<long> keys(static_cast<std::size_t>(num));
    std::iota(keys.begin(), keys.end(), 0);
    Forward(live, keys, options.dim);
    for (const long key : keys) {
      table.LookupOrInsert(key);
    }
  };
  grow(20'000);  // more than a block of records
  const KavoProgress stop = [](void*, unsigned long long, unsigned long long) { return 1; };
  for (const KavoSnapshotItem& item : {Item("rows", live.get()), Item("table", nullptr, 1)}) {
    EXPECT_EQ(Save(folder.Path(), Options(KAVO_SNAPSHOT_FULL), item, "", stop), KAVO_FAILED);
  }
  grow(200'000);
  for (const KavoTableStats& stats : {StatsOf(live).table, table.Stats()}) {
    EXPECT_LT(stats.leftCellBytes, stats.cellBytes / 4);  // the rest goes with further inserts
  }
}

}  // namespace
}  // namespace SnapshotTest
