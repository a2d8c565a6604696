// What the pool's tests share.
#pragma once

#include <gtest/gtest.h>

#include <thread>
#include <utility>

#include "kavo.h"
#include "memory/memory_pool.h"

namespace KavoTest {

constexpr unsigned BLOCK_SIZE = 20;

// What one GetMem call answered. The number of a block in stock is its slot, that of another lies beyond.
struct Taken {
  int ret;
  unsigned char* block;
  Qen::BlockNumber number;
  Qen::MemKind kind;
};

inline Taken Take(Qen::MemoryPool& pool, Qen::MemKind kind = Qen::MemKind::ORDINARY) {
  Qen::NumberedBlock block;
  const int ret = pool.GetMem(block, kind);
  EXPECT_TRUE(ret != KAVO_SUCCESS || pool.Directory().At(block.number) == block.address);
  return {ret, block.address, block.number, kind};
}

template <class F>
void InNewThread(F work) {
  std::thread(std::move(work)).join();
}

}  // namespace KavoTest
