// What the pool's tests share.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

#include "kavo.h"
#include "memory/block_layout.h"
#include "memory/memory_pool.h"

namespace KavoTest {

constexpr unsigned BLOCK_SIZE = 20;

// What one GetMem call answered.
struct Taken {
  int ret;
  unsigned char* block;
  Qen::MemKind kind;
};

inline Taken Take(Qen::MemoryPool& pool, Qen::MemKind kind = Qen::MemKind::ORDINARY) {
  Taken taken{0, nullptr, kind};
  Qen::NumberedBlock block;
  taken.ret = pool.GetMem(block, taken.kind);
  taken.block = block.address;
  EXPECT_TRUE(block.address == nullptr || pool.Directory().At(block.number) == block.address);
  return taken;
}

template <class F>
void InNewThread(F work) {
  std::thread(std::move(work)).join();
}

// The slot that a stock's block lies in, as told from the address of slot 0; -1 for a block outside of the stock.
inline long SlotOf(const unsigned char* block, const unsigned char* slot0, long count) {
  const auto distance =
      static_cast<long>(reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(slot0));
  const auto stride = static_cast<long>(Qen::ValueBlockLayout(BLOCK_SIZE).stride);
  return distance < 0 || distance % stride != 0 || distance / stride >= count ? -1 : distance / stride;
}

// Blocks that do not overlap, are aligned as values are, and hold nothing but zeros.
inline void ExpectFreshAndDisjoint(std::vector<unsigned char*> blocks, std::size_t size = BLOCK_SIZE) {
  std::sort(blocks.begin(), blocks.end());
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    const auto value = reinterpret_cast<std::uintptr_t>(blocks[i] + Qen::BLOCK_HEADER_BYTES);
    const bool apart = i == 0 || static_cast<std::size_t>(blocks[i] - blocks[i - 1]) >= size;
    const bool zero = std::all_of(blocks[i], blocks[i] + size, [](unsigned char byte) { return byte == 0; });
    wrong += value % Qen::VALUE_ALIGNMENT == 0 && apart && zero ? 0 : 1;
  }
  EXPECT_EQ(wrong, 0U) << "of " << blocks.size() << " blocks";
}

}  // namespace KavoTest
