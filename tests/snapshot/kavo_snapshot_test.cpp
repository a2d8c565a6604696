// What kavo-snapshot makes of a folder.
#include "kavo_snapshot/commands.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>

#include "snapshot/snapshot_support.h"

namespace SnapshotTest {
namespace {

class Tool : public ::testing::Test {
 protected:
  Tool() {
    for (int i = 0; i < 3; ++i) {
      m_trainer.Step(m_live.get(), 100);
      if (i == 1) {
        m_trainer.Forget(m_live.get());
      }
      Must(Save(m_folder.Path(), i == 0 ? KAVO_SNAPSHOT_FULL : KAVO_SNAPSHOT_INCREMENT, m_live.get()));
    }
  }

  // The command's exit code; what it prints is appended to m_printed.
  int Run(const std::function<int(std::FILE*)>& command) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::tmpfile(), &std::fclose);  // closed also when it throws
    const int code = command(out.get());
    m_printed.resize(static_cast<std::size_t>(std::ftell(out.get())));
    std::rewind(out.get());
    EXPECT_EQ(std::fread(m_printed.data(), 1, m_printed.size(), out.get()), m_printed.size());
    return code;
  }
  std::string Snapshot(const char* number) const { return m_folder.Path() + "@" + number; }

  const OwnFolder m_folder;
  const OwnFolder m_other;
  Trainer m_trainer{1};
  const Handle m_live = Make(Small(KAVO_OPTIMISER_ADAGRAD, 2));
  std::string m_printed;
};

TEST_F(Tool, AMergedChainIsTheSnapshot) {
  using namespace KavoSnapshot;
  const std::string target = m_other.Path("merged");
  EXPECT_EQ(Run([&](std::FILE* out) { return Merge(m_folder.Path(), target, 0, out); }), EXIT_GOOD);
  const Handle loaded = Loaded(m_folder.Path(), Small(KAVO_OPTIMISER_ADAGRAD));
  const Handle merged = Loaded(target, Small(KAVO_OPTIMISER_ADAGRAD));
  EXPECT_EQ(Contents(merged.get()), Contents(loaded.get()));
  EXPECT_EQ(merged->Clock().Steps(), 3U);
  EXPECT_EQ(Run([&](std::FILE* out) { return Diff(m_folder.Path(), target, out); }), EXIT_GOOD);
  EXPECT_EQ(Run([&](std::FILE* out) { return Diff(Snapshot("1"), Snapshot("2"), out); }), EXIT_DIFFERENT);
  EXPECT_NE(m_printed.find(", 1 only in " + Snapshot("1")), std::string::npos) << m_printed;

  // A line for each key, and one above them.
  EXPECT_EQ(Run([&](std::FILE* out) { return PrintCsv(m_folder.Path(), "rows", out); }), EXIT_GOOD);
  EXPECT_EQ(std::count(m_printed.begin(), m_printed.end(), '\n'), static_cast<long>(RecordsOf(target).size()) + 1);
  EXPECT_EQ(Run([&](std::FILE* out) { return PrintInfo(m_folder.Path(), out); }), EXIT_GOOD);
  EXPECT_NE(m_printed.find("snapshot 3: increment after 2"), std::string::npos) << m_printed;
  EXPECT_EQ(Run([&](std::FILE* out) { return Verify(m_folder.Path(), out); }), EXIT_GOOD);

  const std::string name = PartOf(m_folder.Path(), 1);
  std::string part = m_folder.Read(name);
  part[part.size() / 2] ^= 1;
  m_folder.Write(name, part);
  EXPECT_THROW(Run([&](std::FILE* out) { return Verify(m_folder.Path(), out); }), Qen::Failure);
}

}  // namespace
}  // namespace SnapshotTest
