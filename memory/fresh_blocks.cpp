#include "memory/fresh_blocks.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <exception>
#include <mutex>

#include "platform/cache_line.h"
#include "platform/test_hooks.h"

namespace Qen {
namespace {

constexpr unsigned long long FIRST_RUN_COUNT = 8;
constexpr unsigned long long MAX_RUN_COUNT = 1024;
constexpr std::size_t MAX_RUN_BYTES = std::size_t{256} << 10;
constexpr std::size_t MIN_CHUNK_BYTES = std::size_t{64} << 10;

unsigned long long FirstChunkCount(const BlockLayout& layout) noexcept {
  return std::bit_floor(std::max<std::size_t>((MIN_CHUNK_BYTES - layout.firstAt) / layout.stride, 1));
}

// Threads are numbered from 1 as they take their first block, whatever they take it from.
constinit Atomic<unsigned> g_lastThreadOrdinal{0};
constinit thread_local unsigned g_threadOrdinal = 0;

unsigned ThreadOrdinal() noexcept {
  if (g_threadOrdinal == 0) {
    // relaxed: it only spreads the threads, and nothing is read on the strength of it.
    g_threadOrdinal = g_lastThreadOrdinal.fetch_add(1, std::memory_order_relaxed) + 1;
  }
  return g_threadOrdinal;
}

}  // namespace

// The count is written with every block taken, so its cache line holds no field that other takers read, nor anything
// of another object, wherever the heap places the run.
struct FreshBlocks::Run {
  Run(const NumberedBlock& firstBlock, unsigned long long blockCount, Run* olderRun) noexcept
      : first(firstBlock.address), firstNumber(firstBlock.number), count(blockCount), older(olderRun) {}

  unsigned char* const first;
  const BlockNumber firstNumber;
  const unsigned long long count;
  Run* const older;
  char padding[CACHE_LINE_BYTES - 4 * sizeof(void*)] = {};
  // The maker keeps block 0. May pass `count`, by one for each thread that finds the run used up.
  Atomic<unsigned long long> used{1};
  char paddingBehind[CACHE_LINE_BYTES - sizeof(used)] = {};
};

FreshBlocks::FreshBlocks(const BlockLayout& layout) noexcept
    : m_layout(layout),
      m_maxRunCount(std::clamp<unsigned long long>(MAX_RUN_BYTES / layout.stride, 1, MAX_RUN_COUNT)),
      m_directory(layout.stride, FirstChunkCount(layout)) {
  for (Arena& arena : m_arenas) {
    arena.nextCount = std::min(FIRST_RUN_COUNT, m_maxRunCount);
  }
}

FreshBlocks::~FreshBlocks() {
  while (m_runs != nullptr) {
    Run* const run = m_runs;
    m_runs = run->older;
    HeapDelete(run);
  }
}

NumberedBlock FreshBlocks::Take() {
  NumberedBlock block;
  // relaxed: a hint; who misses a spare block takes another.
  if (m_hasSpare.load(std::memory_order_relaxed) && TakeSpare(block)) [[unlikely]] {
    return block;
  }
  Arena& arena = m_arenas[ThreadOrdinal() % ARENA_COUNT];
  for (;;) {
    // acquire: the run's fields and the zeros of its blocks, published by ReplaceRun.
    Run* const run = arena.run.load(std::memory_order_acquire);
    if (run != nullptr) {
      // relaxed: the increments of one atomic are distinct in any order, and they publish nothing.
      const unsigned long long index = run->used.fetch_add(1, std::memory_order_relaxed);
      if (index < run->count) {
        return {run->first + static_cast<std::size_t>(index) * m_layout.stride,
                run->firstNumber + static_cast<BlockNumber>(index)};
      }
    }
    KAVO_TEST_POINT("FreshBlocks::Take run used up");
    if (ReplaceRun(arena, run, block)) {
      return block;
    }
  }
}

void FreshBlocks::GiveBack(const NumberedBlock& block) noexcept {
  try {
    const std::lock_guard<Mutex> lock(m_mutex);
    std::memcpy(block.address, &m_spare, sizeof(m_spare));
    m_spare = block.number + 1;
    m_hasSpare.store(true, std::memory_order_relaxed);  // a hint
  } catch (const std::exception&) {
    // A lock that reports an error: the block stays unused until all are freed.
  }
}

FreshBlocks::Usage FreshBlocks::GetUsage() {
  const std::lock_guard<Mutex> lock(m_mutex);
  Usage usage{m_inRuns, m_chunkBytes};
  for (const Arena& arena : m_arenas) {
    // Runs that were replaced are used up (I3). relaxed: written under this lock, and a count.
    if (const Run* const run = arena.run.load(std::memory_order_relaxed); run != nullptr) {
      usage.blocks -= run->count - std::min(run->count, run->used.load(std::memory_order_relaxed));
    }
  }
  return usage;
}

// False when there is none any more.
bool FreshBlocks::TakeSpare(NumberedBlock& block) {
  const std::lock_guard<Mutex> lock(m_mutex);
  const bool found = m_spare != 0;
  if (found) {
    block.number = m_spare - 1;
    block.address = m_directory.At(block.number);
    std::memcpy(&m_spare, block.address, sizeof(m_spare));
    std::memset(block.address, 0, sizeof(m_spare));
  }
  m_hasSpare.store(m_spare != 0, std::memory_order_relaxed);  // a hint
  return found;
}

// False when another thread has replaced the run meanwhile.
bool FreshBlocks::ReplaceRun(Arena& arena, const Run* usedUp, NumberedBlock& block) {
  const std::lock_guard<Mutex> lock(m_mutex);
  // relaxed: written under this lock only.
  if (arena.run.load(std::memory_order_relaxed) != usedUp) {
    return false;
  }
  if (m_chunkLeft == 0) {
    MapChunk();
  }
  const unsigned long long count = std::min(arena.nextCount, m_chunkLeft);
  Run* const run = HeapNew<Run>(m_chunkNext, count, m_runs);
  m_runs = run;
  m_chunkLeft -= count;
  m_inRuns += count;
  block = m_chunkNext;
  m_chunkNext.address += static_cast<std::size_t>(count) * m_layout.stride;
  m_chunkNext.number += static_cast<BlockNumber>(count);
  // A run cut short by the end of its chunk does not count: see the bound on what an arena holds back.
  if (count == arena.nextCount) {
    arena.nextCount = std::min(2 * count, m_maxRunCount);
  }
  // release: pairs with the load in Take.
  arena.run.store(run, std::memory_order_release);
  return true;
}

// A chunk as large as its range of numbers, or, where that is refused, down to an eighth of it; what is left of its
// numbers is lost then. Smaller ones would bring little, and use up the numbers for good in a shortage that passes.
void FreshBlocks::MapChunk() {
  const auto range = static_cast<unsigned>(m_chunks.size());
  const unsigned long long start = m_directory.RangeStart(range);
  if (start >= BlockDirectory::MAX_BLOCKS) {
    throw std::bad_alloc();
  }
  unsigned long long count = std::min(m_directory.RangeCount(range), BlockDirectory::MAX_BLOCKS - start);
  const unsigned long long least = std::max(count / 8, m_directory.RangeCount(0));
  m_chunks.reserve(m_chunks.size() + 1);
  for (;;) {
    try {
      m_chunks.emplace_back(m_layout.RangeBytes(count));
      break;
    } catch (const std::bad_alloc&) {
      count /= 2;
      if (count < least) {
        throw;
      }
    }
  }
  m_chunkBytes += m_chunks.back().Bytes();
  m_chunkNext = {m_layout.At(m_chunks.back().Data(), 0), static_cast<BlockNumber>(start)};
  m_directory.SetRange(range, m_chunkNext.address);
  m_chunkLeft = count;
}

}  // namespace Qen
