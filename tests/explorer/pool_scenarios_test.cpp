// Two threads that take blocks from one pool, or from one run of fresh blocks.
#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "explorer/explore.h"
#include "kavo.h"
#include "memory/fresh_blocks.h"
#include "memory/memory_pool.h"

namespace KavoExplorer {
namespace {

// More than the stock holds: the rest is fresh.
class PoolRun final : public ScenarioRun {
 public:
  PoolRun() {
    static_cast<void>(m_pool.InitMemPool(3));
    threads = {[this] { Take(m_taken[0], 3); }, [this] { Take(m_taken[1], 2); }};
  }

  std::string Check() override {
    std::set<unsigned char*> blocks(m_taken[0].begin(), m_taken[0].end());
    blocks.insert(m_taken[1].begin(), m_taken[1].end());
    return blocks.size() == 5 && blocks.count(nullptr) == 0 ? "" : "a block could not be had, or was handed out twice";
  }

 private:
  void Take(std::vector<unsigned char*>& taken, unsigned count) {
    for (; count > 0; --count) {
      Qen::NumberedBlock block;
      Qen::MemKind kind = Qen::MemKind::ORDINARY;
      static_cast<void>(m_pool.GetMem(block, kind));
      taken.push_back(block.address);
    }
  }

  Qen::MemoryPool m_pool{1, 12};
  std::vector<unsigned char*> m_taken[2];
};

// They share an arena, whose first run has 8 blocks.
class ArenaRun final : public ScenarioRun {
 public:
  ArenaRun() {
    threads = {[this] { Take(m_taken[0]); },
               [this] {
                 ShareArena();
                 Take(m_taken[1]);
               }};
  }

  std::string Check() override {
    std::set<unsigned char*> blocks(m_taken[0].begin(), m_taken[0].end());
    blocks.insert(m_taken[1].begin(), m_taken[1].end());
    return blocks.size() == 10 && m_blocks.GetUsage().blocks == 10 ? "" : "a block was handed out twice, or skipped";
  }

 private:
  // Threads get their arenas by turns: the 32nd after one shares its arena.
  static void ShareArena() {
    static thread_local bool done = false;
    for (int others = 31; !done && others > 0; --others) {
      std::thread([] { Qen::FreshBlocks(Qen::BlockLayout{16, 0}).Take(); }).join();
    }
    done = true;
  }
  void Take(std::vector<unsigned char*>& taken) {
    for (int i = 0; i < 5; ++i) {
      taken.push_back(m_blocks.Take().address);
    }
  }

  Qen::FreshBlocks m_blocks{Qen::BlockLayout{16, 0}};
  std::vector<unsigned char*> m_taken[2];
};

TEST(PoolScenarios, TwoThreadsUseUpARun) {
  ExpectHolds([] { return std::make_unique<ArenaRun>(); });
}

TEST(PoolScenarios, TwoThreadsUseUpTheStock) {
  ExpectHolds([] { return std::make_unique<PoolRun>(); });
}

}  // namespace
}  // namespace KavoExplorer
