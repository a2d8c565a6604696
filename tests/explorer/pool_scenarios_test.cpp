// Two threads that take blocks from one pool.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "explorer/explore.h"
#include "explorer/table_run.h"
#include "kavo.h"
#include "memory/memory_pool.h"

namespace KavoExplorer {
namespace {

class PoolRun final : public ScenarioRun {
 public:
  explicit PoolRun(unsigned long long stock) { static_cast<void>(m_pool.InitMemPool(stock)); }

  void Take(unsigned thread, unsigned count, Qen::MemKind kind = Qen::MemKind::ORDINARY) {
    for (; count > 0; --count) {
      Qen::NumberedBlock block;
      Qen::MemKind given = kind;
      if (m_pool.GetMem(block, given) == KAVO_SUCCESS) {
        m_taken[thread].push_back({block.address, given});
      }
    }
  }
  void Prepare() {
    unsigned long long count = 0;
    static_cast<void>(m_pool.PrepareMemForValues(count));
  }
  void Release(unsigned long long index) {
    unsigned char* block = nullptr;
    if (m_pool.GetMemForValues(index, block) == KAVO_SUCCESS) {
      block[4] = MARK;  // the host's value
    }
  }

  std::string Check() override {
    std::set<unsigned char*> blocks;
    for (const auto& taken : m_taken) {
      for (const Taken& one : taken) {
        if (!blocks.insert(one.block).second) {
          return "one block was handed out twice";
        }
        if ((one.kind == Qen::MemKind::PREPARED) != (one.block[4] == MARK)) {
          return "a block of the wrong kind";
        }
      }
    }
    return blocks.size() == m_expected ? "" : "a block could not be had";
  }
  void Expect(std::size_t blocks) { m_expected = blocks; }

 private:
  struct Taken {
    unsigned char* block;
    Qen::MemKind kind;
  };
  static constexpr unsigned char MARK = 77;

  Qen::MemoryPool m_pool{1, 12};
  std::vector<Taken> m_taken[MAX_THREADS];
  std::size_t m_expected = 0;
};

// More than the stock holds: the rest is fresh.
TEST(PoolScenarios, TwoThreadsUseUpTheStock) {
  ExpectHolds([] {
    auto run = std::make_unique<PoolRun>(3);
    PoolRun& pool = *run;
    run->threads = {[&pool] { pool.Take(0, 3); }, [&pool] { pool.Take(1, 2); }};
    run->Expect(5);
    return run;
  });
}

// A prepared block is adopted only once it was released, and then its value is there.
TEST(PoolScenarios, AdoptionBesideRelease) {
  ExpectHolds([] {
    auto run = std::make_unique<PoolRun>(2);
    PoolRun& pool = *run;
    pool.Prepare();
    pool.Release(1);
    run->threads = {[&pool] { pool.Take(0, 2, Qen::MemKind::PREPARED); },
                    [&pool] { pool.Take(1, 1, Qen::MemKind::PREPARED); }};
    run->Expect(3);
    return run;
  });
}

}  // namespace
}  // namespace KavoExplorer
