// Two threads that take blocks from one pool, or from one run of fresh blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>
#include <vector>

#include "explorer/explore.h"
#include "kavo.h"
#include "memory/fresh_blocks.h"
#include "memory/memory_pool.h"

namespace KavoExplorer {
namespace {

class TakingRun : public ScenarioRun {
 protected:
  std::set<Qen::BlockNumber> AllTaken() const {
    std::set<Qen::BlockNumber> all(m_taken[0].begin(), m_taken[0].end());
    all.insert(m_taken[1].begin(), m_taken[1].end());
    return all;
  }

  std::vector<Qen::BlockNumber> m_taken[2];  // by thread
};

// The first calls get what is in stock, whoever makes them; the rest is fresh, with numbers behind those of the stock.
class PoolRun final : public TakingRun {
 public:
  PoolRun(unsigned one, unsigned other) : m_calls(one + other) {
    static_cast<void>(m_pool.InitMemPool(STOCK));
    threads = {[this, one] { Take(0, one); }, [this, other] { Take(1, other); }};
  }

  std::string Check() override {
    const auto all = AllTaken();
    const auto fromStock = std::ranges::count_if(all, [](Qen::BlockNumber number) { return number < STOCK; });
    return all.size() != m_calls                   ? "a block could not be had, or was handed out twice"
           : fromStock != std::min(m_calls, STOCK) ? "a fresh block, while there were some in stock"
                                                   : "";
  }

 private:
  void Take(unsigned thread, unsigned count) {
    for (; count > 0; --count) {
      Qen::NumberedBlock block;
      Qen::MemKind kind = Qen::MemKind::ORDINARY;
      if (m_pool.GetMem(block, kind) == KAVO_SUCCESS) {
        m_taken[thread].push_back(block.number);
      }
    }
  }

  static constexpr unsigned STOCK = 3;
  const unsigned m_calls;
  Qen::MemoryPool m_pool{1, 12};
};

// They share an arena, whose first run has 8 blocks.
class ArenaRun final : public TakingRun {
 public:
  ArenaRun() {
    threads = {[this] { Take(0); },
               [this] {
                 ShareArena();
                 Take(1);
               }};
  }

  std::string Check() override {
    return AllTaken().size() == 10 && m_blocks.GetUsage().blocks == 10 ? ""
                                                                       : "a block was handed out twice, or skipped";
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
  void Take(unsigned thread) {
    for (int i = 0; i < 5; ++i) {
      m_taken[thread].push_back(m_blocks.Take().number);
    }
  }

  Qen::FreshBlocks m_blocks{Qen::BlockLayout{16, 0}};
};

TEST(PoolScenarios, TwoThreadsUseUpARun) {
  ExpectHolds([] { return std::make_unique<ArenaRun>(); });
}

TEST(PoolScenarios, TwoThreadsUseUpTheStock) {
  ExpectHolds([] { return std::make_unique<PoolRun>(2, 1); });
  ExpectHolds([] { return std::make_unique<PoolRun>(3, 2); });
}

}  // namespace
}  // namespace KavoExplorer
