// Two threads that take blocks from one pool.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "explorer/explore.h"
#include "kavo.h"
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

TEST(PoolScenarios, TwoThreadsUseUpTheStock) {
  ExpectHolds([] { return std::make_unique<PoolRun>(); });
}

}  // namespace
}  // namespace KavoExplorer
