// What the pool's tests share.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kavo.h"
#include "memory/block_layout.h"
#include "memory/memory_pool.h"
#include "platform/log_sink.h"
#include "support/log_capture.h"

namespace Qen::PoolTest {

// What one GetMem call answered.
struct Taken {
  int ret;
  unsigned char* block;
  MemKind kind;
};

inline Taken Take(MemoryPool& pool, MemKind kind = MemKind::ORDINARY) {
  Taken taken{0, nullptr, kind};
  NumberedBlock block;
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
inline long long SlotOf(const unsigned char* block, const unsigned char* slot0, unsigned blockSize,
                        unsigned long long count) {
  const auto distance = static_cast<long long>(reinterpret_cast<std::intptr_t>(block)) -
                        static_cast<long long>(reinterpret_cast<std::intptr_t>(slot0));
  const auto stride = static_cast<long long>(ValueBlockLayout(blockSize).stride);
  if (distance < 0 || distance % stride != 0 || distance / stride >= static_cast<long long>(count)) {
    return -1;
  }
  return distance / stride;
}

// Blocks of `size` bytes each that do not overlap, are aligned as values are, and hold nothing but zeros.
inline void ExpectFreshAndDisjoint(std::vector<unsigned char*> blocks, std::size_t size) {
  std::sort(blocks.begin(), blocks.end());
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    const bool aligned = reinterpret_cast<std::uintptr_t>(blocks[i] + BLOCK_HEADER_BYTES) % VALUE_ALIGNMENT == 0;
    const bool apart = i == 0 || static_cast<std::size_t>(blocks[i] - blocks[i - 1]) >= size;
    const bool zero = std::all_of(blocks[i], blocks[i] + size, [](unsigned char byte) { return byte == 0; });
    wrong += aligned && apart && zero ? 0 : 1;
  }
  EXPECT_EQ(wrong, 0U) << "of " << blocks.size() << " blocks";
}

// Expects exactly one line since the last call.
inline void ExpectLine(KavoTest::LogCapture& log, int level, const std::string& function, const std::string& message) {
  const std::vector<KavoTest::LogLine> lines = log.Lines();
  log.Clear();
  ASSERT_EQ(lines.size(), 1U) << function << ": " << message;
  EXPECT_EQ(lines[0].level, level);
  EXPECT_EQ(lines[0].file, "memory_pool.cpp");
  EXPECT_EQ(lines[0].function, function);
  EXPECT_EQ(lines[0].message, message);
}

inline void ExpectNoMemoryLine(KavoTest::LogCapture& log, const std::string& function) {
  ExpectLine(log, KAVO_LOG_LEVEL_EVENT, function, "make_unique failed, exception caught:std::bad_alloc");
}

}  // namespace Qen::PoolTest
