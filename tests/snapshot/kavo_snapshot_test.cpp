// What kavo-snapshot makes of a folder.
#include "kavo_snapshot/commands.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>

#include "snapshot/snapshot_support.h"

namespace SnapshotTest {
namespace {

TEST(Tool, AMergedChainIsTheSnapshot) {
  using namespace KavoSnapshot;
  const OwnFolder folder;
  const OwnFolder other;
  const Handle live = Make(Small(KAVO_OPTIMISER_ADAGRAD, 2));
  Trainer trainer(1);
  for (int i = 0; i < 3; ++i) {
    trainer.Step(live.get(), 100);
    if (i == 1) {
      trainer.Forget(live.get());
    }
    Must(Save(folder.Path(), i == 0 ? KAVO_SNAPSHOT_FULL : KAVO_SNAPSHOT_INCREMENT, live.get()));
  }
  std::string printed;
  // The command's exit code, and what it prints.
  const auto run = [&printed](const std::function<int(std::FILE*)>& command) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::tmpfile(), &std::fclose);  // closed also when it throws
    const int code = command(out.get());
    printed.resize(static_cast<std::size_t>(std::ftell(out.get())));
    std::rewind(out.get());
    EXPECT_EQ(std::fread(printed.data(), 1, printed.size(), out.get()), printed.size());
    return code;
  };
  const std::string first = folder.Path() + "@1";

  const std::string target = other.Path("merged");
  EXPECT_EQ(run([&](std::FILE* out) { return Merge(folder.Path(), target, 0, out); }), EXIT_GOOD);
  const Handle loaded = Loaded(folder.Path(), Small(KAVO_OPTIMISER_ADAGRAD));
  const Handle merged = Loaded(target, Small(KAVO_OPTIMISER_ADAGRAD));
  EXPECT_EQ(Contents(merged.get()), Contents(loaded.get()));
  EXPECT_EQ(merged->Clock().Steps(), 3U);
  EXPECT_EQ(run([&](std::FILE* out) { return Diff(folder.Path(), target, out); }), EXIT_GOOD);
  EXPECT_EQ(run([&](std::FILE* out) { return Diff(first, folder.Path() + "@2", out); }), EXIT_DIFFERENT);
  EXPECT_NE(printed.find(", 1 only in " + first), std::string::npos) << printed;

  // A line for each key, and one above them.
  EXPECT_EQ(run([&](std::FILE* out) { return PrintCsv(folder.Path(), "rows", out); }), EXIT_GOOD);
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), static_cast<long>(RecordsOf(target).size()) + 1);
  EXPECT_EQ(run([&](std::FILE* out) { return PrintInfo(folder.Path(), out); }), EXIT_GOOD);
  EXPECT_NE(printed.find("snapshot 3: increment after 2"), std::string::npos) << printed;
  EXPECT_EQ(run([&](std::FILE* out) { return Verify(folder.Path(), out); }), EXIT_GOOD);

  const std::string name = PartOf(folder.Path(), 1);
  std::string part = folder.Read(name);
  part[part.size() / 2] ^= 1;
  folder.Write(name, part);
  EXPECT_THROW(run([&](std::FILE* out) { return Verify(folder.Path(), out); }), Qen::Failure);
}

}  // namespace
}  // namespace SnapshotTest
