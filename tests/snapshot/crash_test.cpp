// A saver dies before every write, fsync, rename and removal of a save in turn, or is answered with an error there.
// What it had not brought to the disk by then is cut off, dropped or undone. What loads is the state before or after,
// whole.
#include <unistd.h>

#include <cerrno>
#include <map>
#include <set>

#include "snapshot/file.h"
#include "snapshot/snapshot_support.h"

namespace SnapshotTest {
namespace {

using FileStep = Qen::FileHooks::Kind;
using Qen::FileHooks::Operation;

enum Ended { WITHOUT_FAULT, WITH_ERROR, WRONGLY, CRASHED };  // a process's exit status

// What a power failure may do to what is not on the disk.
enum class Loss { ALL, CONTENTS, HALF_OF_CONTENTS };

// The disk as the saver's operations have left it. Of one process.
class Disk {
 public:
  // Does what a crash before operation `nth` does, and ends the process; or fails that operation with `error`.
  static void Arm(unsigned nth, Loss loss, int error) {
    s_disk = {};
    s_disk.m_left = nth;
    s_disk.m_loss = loss;
    s_disk.m_error = error;
    Qen::FileHooks::SetHandler(&Disk::Handle);
  }
  static bool WasReached() { return s_disk.m_left == 0; }
  // Puts manifests whose removal a power failure would undo into a copy of the folder.
  static void BringBack(const OwnFolder& folder) {
    for (const auto& [name, bytes] : s_disk.m_removed) {
      folder.Write(name, bytes);
    }
  }

 private:
  static int Handle(const Operation& operation) {
    if (s_disk.m_left != 0 && --s_disk.m_left == 0) {
      if (s_disk.m_error == 0) {
        s_disk.Crash();
      }
      return s_disk.m_error;
    }
    s_disk.Follow(operation);
    return 0;
  }

  void Follow(const Operation& operation) {
    switch (operation.kind) {
      case FileStep::CREATE:
        m_newNames.insert(operation.path);
        [[fallthrough]];
      case FileStep::WRITE:
        m_contents.insert(operation.path);
        break;
      case FileStep::RENAME:
        m_renames[operation.to] = operation.path;
        m_newNames.erase(operation.path);
        if (m_contents.erase(operation.path) != 0) {
          m_contents.insert(operation.to);
        }
        break;
      case FileStep::REMOVE:
        if (std::ifstream file(operation.path, std::ios::binary);
            file.good() && operation.path.find("manifest") != std::string::npos) {
          m_removed[std::filesystem::path(operation.path).filename()] = {std::istreambuf_iterator<char>(file), {}};
        }
        m_newNames.erase(operation.path);
        [[fallthrough]];
      case FileStep::SYNC:
        m_contents.erase(operation.path);
        break;
      case FileStep::SYNC_FOLDER:
        m_newNames.clear();
        m_renames.clear();
        m_removed.clear();
        break;
    }
  }

  void Crash() {
    std::error_code ignored;
    for (const std::string& path : m_contents) {
      const auto size = std::filesystem::file_size(path, ignored);
      std::filesystem::resize_file(path, m_loss == Loss::HALF_OF_CONTENTS ? size / 2 : 0, ignored);
    }
    if (m_loss == Loss::ALL) {
      for (const auto& [to, from] : m_renames) {
        std::filesystem::rename(to, from, ignored);
      }
      for (const std::string& path : m_newNames) {
        std::filesystem::remove(path, ignored);
      }
    }
    ::_exit(CRASHED);
  }

  unsigned m_left = 0;
  Loss m_loss = Loss::ALL;
  int m_error = 0;
  std::set<std::string> m_contents;  // that are not on the disk
  std::set<std::string> m_newNames;
  std::map<std::string, std::string> m_renames;
  std::map<std::string, std::string> m_removed;  // manifests, with what was in them
  static Disk s_disk;
};
Disk Disk::s_disk;

class Crash : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const unsigned kind : std::vector<unsigned>{KAVO_SNAPSHOT_FULL, KAVO_SNAPSHOT_INCREMENT}) {
      m_trainer.Step(m_live.get(), 40);
      Must(Save(m_folder.Path(), Options(kind), Item("rows", m_live.get()), "old"));
    }
    m_before = Contents(m_live.get());
    m_trainer.Step(m_live.get(), 40);
    m_after = Contents(m_live.get());
    ASSERT_NE(m_before, m_after);
  }
  void TearDown() override { Qen::FileHooks::SetHandler(nullptr); }

  int SaveNew(const std::string& folder, unsigned kind) const {
    // Deletes the chain before a full one.
    return Save(folder, Options(kind, 1, 1), Item("rows", m_live.get()), "new");
  }

  // Whether the folder's newest snapshot is the one that was to be saved; it must be that or the one before, whole.
  bool IsAfter(const std::string& folder) {
    const Handle loaded = Loaded(folder, Small(KAVO_OPTIMISER_ADAGRAD));
    const bool isAfter = BlobOf(folder, 3) == "new";
    EXPECT_TRUE(Contents(loaded.get()) == (isAfter ? m_after : m_before));
    return isAfter;
  }

  // With what was removed, and not brought to the disk, there again.
  bool IsWholeAfterAPowerFailure(const OwnFolder& folder) {
    const OwnFolder after;
    std::filesystem::copy(folder.Path(), after.Path());
    Disk::BringBack(after);
    IsAfter(after.Path());
    return !HasFailure();
  }

  const OwnFolder m_folder;
  Trainer m_trainer{1};
  const Handle m_live = Make(Small(KAVO_OPTIMISER_ADAGRAD));
  Records m_before;
  Records m_after;
};

TEST_F(Crash, OrErrorLeavesTheStateBeforeOrAfter) {
  const std::pair<Loss, int> FAULTS[] = {
      {Loss::ALL, 0}, {Loss::CONTENTS, 0}, {Loss::HALF_OF_CONTENTS, 0}, {Loss::ALL, ENOSPC}, {Loss::ALL, EIO}};
  for (const unsigned kind : std::vector<unsigned>{KAVO_SNAPSHOT_FULL, KAVO_SNAPSHOT_INCREMENT}) {
    for (const auto& [loss, error] : FAULTS) {
      int ended = CRASHED;
      bool wasAfter = false;
      for (unsigned nth = 1; ended != WITHOUT_FAULT; ++nth) {
        SCOPED_TRACE(::testing::Message() << "kind " << kind << ", loss " << static_cast<int>(loss) << ", error "
                                          << error << ", at operation " << nth);
        const OwnFolder folder;
        std::filesystem::copy(m_folder.Path(), folder.Path());
        ended = InAChild([&, nth = nth, loss = loss, error = error] {
          Disk::Arm(nth, loss, error);
          const int status = SaveNew(folder.Path(), kind);
          Qen::FileHooks::SetHandler(nullptr);
          // An error is reported, and the save that follows holds what this one would have.
          if (status != KAVO_SUCCESS &&
              (status != KAVO_IO_ERROR ||
               !std::string(KavoEmbeddingLastError()).ends_with(std::generic_category().message(error)) ||
               IsAfter(folder.Path()) || !IsWholeAfterAPowerFailure(folder) ||
               SaveNew(folder.Path(), kind) != KAVO_SUCCESS)) {
            return WRONGLY;
          }
          return HasFailure() ? WRONGLY : Disk::WasReached() ? WITH_ERROR : WITHOUT_FAULT;
        });
        ASSERT_TRUE(ended >= 0 && ended != WRONGLY) << ended;
        const bool isAfter = IsAfter(folder.Path());
        EXPECT_TRUE(isAfter || (ended == CRASHED && !wasAfter)) << "what was on the disk is lost";
        wasAfter = isAfter;
        // Whoever comes next is not held up, and loses nothing.
        EXPECT_EQ(
            InAChild([&] { return SaveNew(folder.Path(), isAfter ? KAVO_SNAPSHOT_FULL : KAVO_SNAPSHOT_INCREMENT); }),
            KAVO_SUCCESS);
        EXPECT_TRUE(IsAfter(folder.Path()));
        if (HasFailure()) {
          return;
        }
      }
    }
  }
}

}  // namespace
}  // namespace SnapshotTest
