// Files that are not what they should be: each is refused with its name, and nothing was loaded.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "snapshot/snapshot_support.h"

namespace SnapshotTest {
namespace {

class Damage : public ::testing::Test {
 protected:
  void SetUp() override {
    m_trainer.Step(m_live.get(), 12);
    Must(Save(m_folder.Path(), KAVO_SNAPSHOT_FULL, m_live.get()));
    m_trainer.Step(m_live.get(), 6);
    Must(Save(m_folder.Path(), KAVO_SNAPSHOT_INCREMENT, m_live.get(), 1));
    m_files = {"manifest-0000000001", "manifest-0000000002", PartOf(m_folder.Path(), 1), PartOf(m_folder.Path(), 2)};
  }

  int LoadOne(const std::string& folder) { return Load(folder, Item("rows", m_loaded.get())); }

  // The snapshot is refused, with this text and the file's name in it.
  void ExpectRefused(const std::string& file, const char* text = "") {
    ASSERT_EQ(LoadOne(m_folder.Path()), KAVO_REFUSED_FILE) << file;
    const std::string error = KavoEmbeddingLastError();
    ASSERT_TRUE(error.find(file) != std::string::npos && error.find(text) != std::string::npos) << error;
    ASSERT_EQ(m_loaded->Rows(), 0U);
  }

  const OwnFolder m_folder;
  Trainer m_trainer{1};
  const Handle m_live = Make(Small(KAVO_OPTIMISER_SGD));
  Handle m_loaded = Make(Small(KAVO_OPTIMISER_SGD));
  std::vector<std::string> m_files;
};

TEST_F(Damage, EveryByteAndEveryLengthCounts) {
  for (const std::string& file : m_files) {
    SCOPED_TRACE(file);
    const std::string whole = m_folder.Read(file);
    for (std::size_t i = 0; i < whole.size(); ++i) {
      std::string flipped = whole;
      flipped[i] = static_cast<char>(flipped[i] ^ (1 << i % 8));
      m_folder.Write(file, flipped);
      ASSERT_NO_FATAL_FAILURE(ExpectRefused(file)) << "byte " << i;
      m_folder.Write(file, whole.substr(0, i));
      ASSERT_NO_FATAL_FAILURE(ExpectRefused(file)) << "length " << i;
    }
    m_folder.Write(file, whole + '\0');
    ASSERT_NO_FATAL_FAILURE(ExpectRefused(file));
    m_folder.Write(file, whole);
  }
  Must(LoadOne(m_folder.Path()));
}

TEST_F(Damage, ForeignNewerMissingAndSwappedFilesAreNamed) {
  for (const std::string& file : m_files) {
    SCOPED_TRACE(file);
    const std::string whole = m_folder.Read(file);
    const std::pair<std::string, const char*> others[] = {{whole.substr(0, 8) + '\2' + whole.substr(9), "newer"},
                                                          {"KAVOSNAP" + whole.substr(8), "example"},
                                                          {"anything else that is long enough to be read", ""}};
    for (const auto& [bytes, text] : others) {
      m_folder.Write(file, bytes);
      ExpectRefused(file, text);
    }
    if (file != m_files[1]) {  // the chain is the first alone then
      std::filesystem::remove(m_folder.Path(file));
      ExpectRefused(file, "missing");
    }
    m_folder.Write(file, whole);
  }
  // The part of another attempt at the same number, whole by itself.
  const OwnFolder again;
  Must(Save(again.Path(), KAVO_SNAPSHOT_FULL, m_live.get()));
  m_folder.Write(m_files[2], again.Read(PartOf(again.Path(), 1)));
  ExpectRefused(m_files[2], "manifest");
  m_folder.Write(m_files[0], again.Read(m_files[0]));
  ExpectRefused(m_files[0], "follows");
}

// However long a chain is: one file is open at a time.
TEST_F(Damage, AChainIsLoadedWithOneFileOpenAtATime) {
  for (int i = 0; i < 4; ++i) {
    Must(Save(m_folder.Path(), KAVO_SNAPSHOT_INCREMENT, m_live.get()));
  }
  EXPECT_EQ(InAChild([&] {
              const rlim_t most = static_cast<rlim_t>(::dup(0)) + 4;  // this one's, a file's, two of a sanitizer's
              const rlimit limit{most, most};
              ::setrlimit(RLIMIT_NOFILE, &limit);
              return LoadOne(m_folder.Path());
            }),
            KAVO_SUCCESS);
}

TEST_F(Damage, WhatDoesNotFitIsRefused) {
  m_loaded = Make(3, KAVO_OPTIMISER_SGD);
  ExpectRefused("rows", "dim");
  m_loaded = Make(2, KAVO_OPTIMISER_ADAGRAD);
  ExpectRefused("rows", "optimiser");
  m_loaded = Make(Small(KAVO_OPTIMISER_SGD));
  const OwnFolder other;
  KavoEmbeddingOptions start = m_live->Options();
  start.startB = start.startA;  // as no call takes it
  m_live->SetStart(start);
  Must(Save(other.Path(), KAVO_SNAPSHOT_FULL, m_live.get()));
  EXPECT_EQ(LoadOne(other.Path()), KAVO_REFUSED_FILE);
  EXPECT_EQ(Load(m_folder.Path(), Item("other", m_loaded.get())), KAVO_INVALID);
  EXPECT_EQ(Load(m_folder.Path(), Item("rows", m_live.get())), KAVO_INVALID) << "not empty";
  EXPECT_EQ(Load(m_folder.Path(), Item("rows", m_loaded.get()), 0, 1, 9), KAVO_INVALID) << "no such snapshot";
  EXPECT_EQ(LoadOne(m_folder.Path("nowhere")), KAVO_IO_ERROR);
  EXPECT_EQ(LoadOne(m_folder.Path(m_files[0])), KAVO_IO_ERROR) << "no folder";
  EXPECT_EQ(Save(m_folder.Path(m_files[0]), KAVO_SNAPSHOT_FULL, m_live.get()), KAVO_IO_ERROR);
  EXPECT_EQ(Save(m_folder.Path("nowhere/deeper"), KAVO_SNAPSHOT_FULL, m_live.get()), KAVO_IO_ERROR);
  EXPECT_EQ(Save(m_folder.Path("new"), KAVO_SNAPSHOT_INCREMENT, m_live.get()), KAVO_INVALID) << "follows nothing";
  const Handle stranger = Make(Small(KAVO_OPTIMISER_SGD));
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
      unsigned long long number = 0;
      unsigned long long id = 0;
      Must(KavoSnapshotIdentity(save, &number, &id));
      const std::string path = Qen::Folder(m_folder.Path()).PartPath({number, id}, 1);
      std::filesystem::copy(m_folder.Path(m_files[3]), path);
    }
    EXPECT_EQ(KavoSnapshotCommit(save, nullptr, 0), KAVO_REFUSED_FILE);
    EXPECT_EQ(Qen::Folder(m_folder.Path()).Numbers().size(), 2U);
  }
  Must(LoadOne(m_folder.Path()));
  Must(Save(m_folder.Path(), KAVO_SNAPSHOT_INCREMENT, m_live.get()));
}

// A file size limit of the system at every length: an error, and the state before.
TEST_F(Damage, AFileSizeLimitLeavesTheStateBefore) {
  const Records contents = RecordsOf(m_folder.Path());
  bool saved = false;
  for (rlim_t most = 0; !saved; most += 100) {
    ASSERT_LT(most, 100'000U);
    const int ended = InAChild([&] {
      ::signal(SIGXFSZ, SIG_IGN);
      const rlimit limit{most, most};
      ::setrlimit(RLIMIT_FSIZE, &limit);
      const int status = Save(m_folder.Path(), KAVO_SNAPSHOT_FULL, m_live.get());
      return status == KAVO_SUCCESS ? 0 : status == KAVO_IO_ERROR ? 1 : 2;
    });
    saved = ended == 0;
    ASSERT_TRUE(saved || ended == 1) << ended;
    if (!saved) {
      ASSERT_EQ(RecordsOf(m_folder.Path()), contents);
      ASSERT_EQ(FilesIn(m_folder.Path()), 5);
    }
  }
}

}  // namespace
}  // namespace SnapshotTest
