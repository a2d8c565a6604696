// Calls on embeddings and snapshots with the n-th allocation failing, for every n: a status and a text, and nothing is
// lost or half there.
#include <numeric>

#include "platform/test_hooks.h"
#include "snapshot/snapshot_support.h"
#include "support/replaced_new.h"

// The standard library's allocations fail by the plan of the base's own.
bool IsGranted() noexcept {
  return !Qen::TestHooks::ShouldFailAllocation();
}

namespace SnapshotTest {
namespace {

// call() with its n-th allocation failing, for n = 1, 2, ... until it needs fewer: by itself, or with all after it.
// check(failed) after each.
template <class Call, class Check>
void FailEach(const Call& call, const Check& check) {
  namespace Hooks = Qen::TestHooks;
  for (const bool stay : {false, true}) {
    unsigned failures = 0;
    unsigned long long nth = 0;
    do {
      SCOPED_TRACE(::testing::Message() << "allocation " << ++nth << (stay ? " and all later ones fail" : " fails"));
      Hooks::FailAllocation(nth, stay);
      const int status = call();
      Hooks::FailAllocation(0);
      const std::string text = KavoEmbeddingLastError();
      // The base answers KAVO_FAILED, -1, when it has no memory for an overflow map.
      EXPECT_TRUE(
          status == KAVO_SUCCESS || (status == KAVO_FAILED && text.find("answered -1") != std::string::npos) ||
          (status == KAVO_NO_MEMORY && (text.find("answered -3") != std::string::npos || text.ends_with("no memory"))))
          << status << ' ' << text;
      failures += status == KAVO_SUCCESS ? 0 : 1;
      check(status != KAVO_SUCCESS);
    } while (Hooks::AllocationFailures() != 0 && !::testing::Test::HasFailure());
    EXPECT_GT(failures, 2U);
  }
}

class Memory : public ::testing::Test {
 protected:
  Memory() {
    m_trainer.Step(m_live.get(), 100);
    Must(Save(m_path, KAVO_SNAPSHOT_FULL, m_live.get()));
    m_trainer.Step(m_live.get(), 100);
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
  FailEach([&] { return Save(m_path, KAVO_SNAPSHOT_INCREMENT, m_live.get()); },
           [&](bool failed) {
             if (!failed) {
               last = m_live->Snapshots().last;
               cut = m_live->Snapshots().cut;
             }
             EXPECT_EQ(m_live->Snapshots().last, last);
             EXPECT_EQ(m_live->Snapshots().cut, cut);
           });
  EXPECT_EQ(Contents(Loaded(m_path, m_options).get()), contents);
  const auto snapshots = static_cast<long>(Qen::Folder(m_path).Numbers().size());
  EXPECT_EQ(FilesIn(m_path), 1 + 2 * snapshots) << "lock, manifests, parts: what could not be removed was by the next";
}

TEST_F(Memory, ALoadThatFailsLeavesAnEmptyEmbedding) {
  Must(Save(m_path, KAVO_SNAPSHOT_INCREMENT, m_live.get()));
  const Records contents = Contents(m_live.get());
  Handle loaded = Make(m_options);
  FailEach([&] { return Load(m_path, Item("rows", loaded.get())); },
           [&](bool failed) {
             EXPECT_EQ(Contents(loaded.get()), failed ? Records() : contents);
             EXPECT_EQ(loaded->Clock().Steps(), failed ? 0U : 2U);
             loaded = failed ? std::move(loaded) : Make(m_options);
           });
}

TEST(EmbeddingMemory, ACreationThatFailsLeavesNothing) {
  const auto bytes = [] { return Qen::TestHooks::HeapBytesInUse() + Qen::TestHooks::MappedBytesInUse(); };
  const KavoEmbeddingOptions options = Small(KAVO_OPTIMISER_SGD);
  Make(options);  // what the first in a process leaves for the others
  const long long before = bytes();
  KavoEmbedding* made = nullptr;
  FailEach([&] { return KavoEmbeddingCreate(&options, &made); },
           [&](bool failed) {
             EXPECT_EQ(made == nullptr, failed);
             Must(KavoEmbeddingDestroy(std::exchange(made, nullptr)));
             EXPECT_EQ(bytes(), before);
           });
}

// A row is whole, its start or what it was, whichever call has failed, and the same call succeeds afterwards.
TEST(EmbeddingMemory, AForwardOrBackwardThatFailsLeavesRowsAsTheyWere) {
  std::vector<long> keys(1200);
  std::iota(keys.begin(), keys.end(), -600);
  const std::vector<float> gradients(keys.size() * 2, 0.5F);
  const unsigned long long offsets[] = {0, 700, keys.size()};
  const KavoBags bags{sizeof(KavoBags), 2, offsets, nullptr, KAVO_POOL_MEAN, 0, 0};
  std::vector<float> out(keys.size() * 2);
  for (const bool pooled : {false, true}) {
    Handle embedding;
    std::vector<float> before;
    const auto rows = [&] {
      std::vector<float> all(keys.size() * 4);
      Must(KavoEmbeddingGetRows(embedding.get(), keys.data(), keys.size(), all.data(), nullptr, nullptr));
      return all;
    };
    const auto forward = [&] {
      return pooled ? KavoEmbeddingForwardBags(embedding.get(), keys.data(), keys.size(), &bags, out.data(), nullptr)
                    : KavoEmbeddingForward(embedding.get(), keys.data(), keys.size(), nullptr, out.data(), nullptr);
    };
    const auto backward = [&] {
      return pooled ? KavoEmbeddingBackwardBags(embedding.get(), keys.data(), keys.size(), &bags, gradients.data(), 1,
                                                nullptr, nullptr)
                    : KavoEmbeddingBackward(embedding.get(), keys.data(), keys.size(), gradients.data(), 1, nullptr);
    };
    const auto begin = [&] {
      embedding = Make(Small(KAVO_OPTIMISER_ADAGRAD));
      Forward(embedding, std::vector<long>(keys.begin() + 400, keys.begin() + 800), 2);
      Must(KavoEmbeddingBackward(embedding.get(), &keys[400], 200, gradients.data(), 1, nullptr));
      before = Lookup(embedding, keys, 2);
      std::fill(out.begin(), out.end(), 0.0F);
    };
    begin();
    FailEach(forward, [&](bool failed) {
      EXPECT_EQ(Lookup(embedding, keys, 2), before);
      EXPECT_TRUE(failed || pooled || out == before);
      Must(forward());
      EXPECT_EQ(StatsOf(embedding).rows, keys.size());
      begin();
    });
    Must(forward());
    before = rows();
    FailEach(backward, [&](bool failed) {
      EXPECT_EQ(rows() == before, failed);
      begin();
      Must(forward());
      before = rows();
    });
  }
}

}  // namespace
}  // namespace SnapshotTest
