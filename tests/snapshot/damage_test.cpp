// Files that are not what they should be: each is refused with its name, and nothing was loaded.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "snapshot/snapshot_support.h"

namespace SnapshotTest {
namespace {

class Damage : public ::testing::Test {
 protected:
  void SetUp() override {
    m_live = MakeOne();
    m_loaded = MakeOne();
    m_trainer.Step(m_live.get(), 12);
    Must(Save(m_folder.Path(), KAVO_SNAPSHOT_FULL, m_live.get()));
    m_trainer.Step(m_live.get(), 6);
    Must(Save(m_folder.Path(), KAVO_SNAPSHOT_INCREMENT, m_live.get(), 1));
  }

  static Handle MakeOne() {
    KavoEmbeddingOptions options = EmbeddingTest::Defaults(2, KAVO_OPTIMISER_SGD);
    options.expected = 8;
    options.threads = 1;
    return EmbeddingTest::Make(options);
  }

  // The snapshot is refused, with this text and the file's name in it.
  void ExpectRefused(const std::string& file, const char* text = "") {
    ASSERT_EQ(Load(m_folder.Path(), m_loaded.get()), KAVO_REFUSED_FILE) << file;
    ASSERT_NE(std::string(KavoEmbeddingLastError()).find(file), std::string::npos) << KavoEmbeddingLastError();
    ASSERT_NE(std::string(KavoEmbeddingLastError()).find(text), std::string::npos) << KavoEmbeddingLastError();
    ASSERT_EQ(m_loaded->Rows(), 0U);
  }

  const TempFolder m_folder;
  Trainer m_trainer{1};
  Handle m_live;
  Handle m_loaded;
};

const char* const FILES[] = {"manifest-0000000001", "manifest-0000000002", "part-0000000001-00000",
                             "part-0000000002-00000"};

TEST_F(Damage, EveryByteAndEveryLengthCounts) {
  for (const char* file : FILES) {
    SCOPED_TRACE(file);
    const std::string path = m_folder / file;
    const std::string whole = Slurp(path);
    for (std::size_t i = 0; i < whole.size(); ++i) {
      std::string flipped = whole;
      flipped[i] = static_cast<char>(flipped[i] ^ (1 << i % 8));
      Spill(path, flipped);
      ASSERT_NO_FATAL_FAILURE(ExpectRefused(file)) << "byte " << i;
      Spill(path, whole.substr(0, i));
      ASSERT_NO_FATAL_FAILURE(ExpectRefused(file)) << "length " << i;
    }
    Spill(path, whole + '\0');
    ASSERT_NO_FATAL_FAILURE(ExpectRefused(file));
    Spill(path, whole);
  }
  Must(Load(m_folder.Path(), m_loaded.get()));
}

TEST_F(Damage, ForeignNewerMissingAndSwappedFilesAreNamed) {
  for (const char* file : FILES) {
    SCOPED_TRACE(file);
    const std::string path = m_folder / file;
    const std::string whole = Slurp(path);
    std::string other = whole;
    other[8] = 2;
    Spill(path, other);
    ExpectRefused(file, "newer");
    Spill(path, "KAVOSNAP" + whole.substr(8));
    ExpectRefused(file, "example");
    Spill(path, "anything else that is long enough to be read");
    ExpectRefused(file);
    if (std::string(file) != FILES[1]) {  // the chain is the first alone then
      std::filesystem::remove(path);
      ExpectRefused(file, "missing");
    }
    Spill(path, whole);
  }
  // The part of another attempt at the same number, whole by itself.
  const TempFolder again;
  Must(Save(again.Path(), KAVO_SNAPSHOT_FULL, m_live.get()));
  Spill(m_folder / FILES[2], Slurp(again / FILES[2]));
  ExpectRefused(FILES[2], "manifest");
  Spill(m_folder / FILES[0], Slurp(again / FILES[0]));
  ExpectRefused(FILES[0], "follows");
}

TEST_F(Damage, WhatDoesNotFitIsRefused) {
  KavoEmbeddingOptions options = EmbeddingTest::Defaults(3, KAVO_OPTIMISER_SGD);
  m_loaded = EmbeddingTest::Make(options);
  ExpectRefused("rows", "dim");
  m_loaded = EmbeddingTest::Make(EmbeddingTest::Defaults(2, KAVO_OPTIMISER_ADAGRAD));
  ExpectRefused("rows", "optimiser");
  const KavoSnapshotItem other = Item("other", m_loaded.get());
  EXPECT_EQ(KavoSnapshotLoad(m_folder.Path().c_str(), 0, &other, 1, 0, 1, nullptr, nullptr), KAVO_INVALID);
  EXPECT_EQ(Load(m_folder.Path(), m_live.get()), KAVO_INVALID) << "not empty";
  EXPECT_EQ(Load(m_folder.Path(), m_loaded.get(), 0, 1, 9), KAVO_INVALID) << "no such snapshot";
  EXPECT_EQ(Load(m_folder / "nowhere", m_loaded.get()), KAVO_IO_ERROR);
  EXPECT_EQ(Load(m_folder / FILES[0], m_loaded.get()), KAVO_IO_ERROR) << "no folder";
  EXPECT_EQ(Save(m_folder / FILES[0], KAVO_SNAPSHOT_FULL, m_live.get()), KAVO_IO_ERROR);
  EXPECT_EQ(Save(m_folder / "nowhere/deeper", KAVO_SNAPSHOT_FULL, m_live.get()), KAVO_IO_ERROR);
  EXPECT_EQ(Save(m_folder / "new", KAVO_SNAPSHOT_INCREMENT, m_live.get()), KAVO_INVALID) << "follows nothing";
  const Handle stranger = MakeOne();
  EXPECT_EQ(Save(m_folder.Path(), KAVO_SNAPSHOT_INCREMENT, stranger.get()), KAVO_INVALID);
}

// A commit takes no part that is missing, or that another save wrote.
TEST_F(Damage, CommitChecksItsParts) {
  const KavoSaveOptions options = Options(KAVO_SNAPSHOT_FULL, 2);
  const KavoSnapshotItem item = Item("rows", m_live.get());
  for (const bool foreign : {false, true}) {
    KavoSave* save = nullptr;
    Must(KavoSnapshotBegin(m_folder.Path().c_str(), &options, &save));
    Must(KavoSnapshotPart(save, 0, &item, 1, nullptr, nullptr));
    if (foreign) {
      Spill(m_folder / "part-0000000003-00001", Slurp(m_folder / "part-0000000002-00000"));
    }
    EXPECT_EQ(KavoSnapshotCommit(save, nullptr, 0), KAVO_REFUSED_FILE);
    EXPECT_EQ(Qen::Folder(m_folder.Path()).Numbers().size(), 2U);
  }
  Must(Load(m_folder.Path(), m_loaded.get()));
  Must(Save(m_folder.Path(), KAVO_SNAPSHOT_INCREMENT, m_live.get()));
}

// A file size limit of the system at every length: an error, and the state before.
TEST_F(Damage, AFileSizeLimitLeavesTheStateBefore) {
  const std::string before = Slurp(m_folder / FILES[1]);
  const Records contents = RecordsOf(m_folder.Path());
  bool saved = false;
  for (rlim_t most = 0; !saved; most += 100) {
    ASSERT_LT(most, 100'000U);
    const pid_t child = ::fork();
    if (child == 0) {
      ::signal(SIGXFSZ, SIG_IGN);
      const rlimit limit{most, most};
      ::setrlimit(RLIMIT_FSIZE, &limit);
      const int status = Save(m_folder.Path(), KAVO_SNAPSHOT_FULL, m_live.get());
      ::_exit(status == KAVO_SUCCESS ? 0 : status == KAVO_IO_ERROR ? 1 : 2);
    }
    int ended = 0;
    ASSERT_EQ(::waitpid(child, &ended, 0), child);
    ASSERT_TRUE(WIFEXITED(ended));
    ASSERT_NE(WEXITSTATUS(ended), 2);
    saved = WEXITSTATUS(ended) == 0;
    if (!saved) {
      ASSERT_EQ(RecordsOf(m_folder.Path()), contents);
      ASSERT_EQ(std::distance(std::filesystem::directory_iterator(m_folder.Path()), {}), 5);
    }
  }
}

}  // namespace
}  // namespace SnapshotTest
