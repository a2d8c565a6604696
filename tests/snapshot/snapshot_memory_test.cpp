// Saving and loading with the n-th allocation failing, for every n: a status, and nothing is lost or half there.
#include <cstdlib>
#include <new>

#include "snapshot/snapshot_support.h"
#include "support/fault_loop.h"

namespace {

// Of this thread, from now on; 0: none.
thread_local unsigned long long t_allocationsToFailure = 0;

}  // namespace

// Not inlined: a compiler that sees into one of a pair takes malloc and delete, or new and free, for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return t_allocationsToFailure != 0 && --t_allocationsToFailure == 0 ? nullptr : std::malloc(bytes);
}
[[gnu::noinline]] void* operator new(std::size_t bytes) {
  void* const memory = operator new(bytes, std::nothrow);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace SnapshotTest {
namespace {

class Memory : public ::testing::Test {
 protected:
  Memory() {
    m_trainer.Step(m_live.get(), 100);
    Must(Save(m_path, KAVO_SNAPSHOT_FULL, m_live.get()));
    m_trainer.Step(m_live.get(), 100);
  }

  static void Disarm() {
    t_allocationsToFailure = 0;
    Qen::TestHooks::FailAllocation(0);
  }

  // call() with each allocation failing in turn, the library's own ones and those of the standard library. check()
  // after each that has failed; answers how many did.
  template <class Call, class Check>
  unsigned FailEach(const Call& call, const Check& check) {
    unsigned failures = 0;
    for (const bool base : {false, true}) {
      int status = KAVO_NO_MEMORY;
      for (unsigned long long nth = 1; status != KAVO_SUCCESS && !HasFailure(); ++nth) {
        SCOPED_TRACE(::testing::Message() << (base ? "base, " : "") << "allocation " << nth << " fails");
        if (base) {
          Qen::TestHooks::FailAllocation(nth, true);  // and all after it
        } else {
          t_allocationsToFailure = nth;
        }
        status = call();
        Disarm();
        if (status != KAVO_SUCCESS) {
          // The base answers so when it has no memory for an overflow map.
          EXPECT_TRUE(status == KAVO_NO_MEMORY || (base && status == KAVO_FAILED)) << KavoEmbeddingLastError();
          check();
          ++failures;
        }
      }
    }
    return failures;
  }

  const KavoEmbeddingOptions m_options = Small(KAVO_OPTIMISER_ADAGRAD, 2);
  const OwnFolder m_folder;
  const std::string m_path = m_folder.Path();
  Trainer m_trainer{1};
  const Handle m_live = Make(m_options);
};

TEST_F(Memory, ASaveThatFailsLosesNothing) {
  Qen::SaveIdentity last = m_live->Snapshots().last;
  std::uint64_t cut = m_live->Snapshots().cut;
  const Records contents = Contents(m_live.get());
  const unsigned failures = FailEach(
      [&] {
        const int status = Save(m_path, KAVO_SNAPSHOT_INCREMENT, m_live.get());
        if (status == KAVO_SUCCESS) {
          last = m_live->Snapshots().last;
          cut = m_live->Snapshots().cut;
        }
        return status;
      },
      [&] {
        EXPECT_EQ(m_live->Snapshots().last, last);
        EXPECT_EQ(m_live->Snapshots().cut, cut);
        EXPECT_EQ(FilesIn(m_path), 1 + 2 * static_cast<long>(Qen::Folder(m_path).Numbers().size()))
            << "lock, manifests, parts";
      });
  EXPECT_GT(failures, 20U);
  EXPECT_EQ(Contents(Loaded(m_path, m_options).get()), contents);
}

TEST_F(Memory, ALoadThatFailsLeavesAnEmptyEmbedding) {
  Must(Save(m_path, KAVO_SNAPSHOT_INCREMENT, m_live.get()));
  Handle loaded = Make(m_options);
  const unsigned failures = FailEach(
      [&] {
        const int status = Load(m_path, Item("rows", loaded.get()));
        Disarm();
        if (status == KAVO_SUCCESS) {
          EXPECT_EQ(Contents(loaded.get()), Contents(m_live.get()));
          loaded = Make(m_options);
        }
        return status;
      },
      [&] {
        EXPECT_EQ(loaded->Rows(), 0U);
        EXPECT_TRUE(Contents(loaded.get()).empty());
        EXPECT_EQ(loaded->Clock().Steps(), 0U);
      });
  EXPECT_GT(failures, 20U);
}

}  // namespace
}  // namespace SnapshotTest
