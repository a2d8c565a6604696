#include "memory/memory_pool.h"

#include <bit>
#include <exception>
#include <utility>

#include "kavo.h"
#include "platform/log.h"
#include "platform/test_hooks.h"

namespace Qen {
namespace {

constexpr char POOL_LOG_UNIT[] = "memory_pool.cpp";

static_assert(AtomicRef<unsigned char>::is_always_lock_free);
static_assert(AtomicRef<unsigned char>::required_alignment == 1);

// Where the n-th thread, from 0, starts in a stock of `slots`. May be `slots`, which is slot 0. A product that wraps,
// for more threads times slots than memory could hold, gives a smaller offset and is as good as any.
unsigned long long StartOffset(unsigned long long n, unsigned long long slots) noexcept {
  if (n == 0) {
    return 0;
  }
  if (std::has_single_bit(n)) {
    return slots / n;
  }
  const unsigned long long above = std::bit_ceil(n);
  return (2 * n - above + 1) * slots / above;
}

}  // namespace

MemoryPool::MemoryPool(int id, unsigned blockSize)
    : m_id(id), m_blockSize(blockSize), m_layout(ValueBlockLayout(blockSize)), m_fresh(m_layout) {}

int MemoryPool::InitMemPool(unsigned long long count) noexcept {
  if (count == 0) {
    KAVO_LOG_ERROR(POOL_LOG_UNIT, "InitMemPool failed, count is 0!!");
    return KAVO_INVALID;
  }
  if (m_count != 0) {
    KAVO_LOG_ERROR(POOL_LOG_UNIT, "InitMemPool failed, repeatedly calling function");
    return KAVO_INVALID;
  }
  try {
    if (count > BlockDirectory::MAX_BLOCKS) {
      throw std::bad_alloc();
    }
    ZeroedRange blocks(m_layout.RangeBytes(count));
    ZeroedRange flags(count, 1);
    m_mem = std::move(blocks);
    m_memFlags = std::move(flags);
  } catch (const std::exception& e) {
    KAVO_LOG_EVENT(POOL_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
    return KAVO_NO_MEMORY;
  }
  m_count = count;
  m_fresh.Directory().SetStock(m_layout.At(m_mem.Data(), 0), count);
  return KAVO_SUCCESS;
}

int MemoryPool::GetMem(NumberedBlock& out, MemKind& kind) noexcept {
  ThreadIndex* const record = FindThreadIndex(m_id);
  if (record != nullptr && record->serial != m_serial.Value()) {
    Register(*record);
  }
  const bool prepared = m_prepared.load();
  if (record != nullptr && kind == (prepared ? MemKind::PREPARED : MemKind::ORDINARY) &&
      TakeFromStock(*record, prepared ? RELEASED : IN_STOCK, out)) {
    HandOut(out.address);
    return KAVO_SUCCESS;
  }
  kind = MemKind::ORDINARY;
  try {
    out = m_fresh.Take();
    HandOut(out.address);
  } catch (const std::exception& e) {
    KAVO_LOG_EVENT(POOL_LOG_UNIT, "make_unique failed, exception caught:%s", e.what());
    return KAVO_NO_MEMORY;
  }
  return KAVO_SUCCESS;
}

int MemoryPool::PrepareMemForValues(unsigned long long& count) noexcept {
  if (m_count == 0) {
    KAVO_LOG_ERROR(POOL_LOG_UNIT, "PrepareMemForValues failed, count is 0!!");
    return KAVO_NO_MEMORY;
  }
  count = m_count;
  if (m_prepared.exchange(true)) {
    KAVO_LOG_ERROR(POOL_LOG_UNIT, "PrepareMemForValues failed, repeatedly calling function");
    return KAVO_INVALID;
  }
  return KAVO_SUCCESS;
}

int MemoryPool::GetMemForValues(unsigned long long index, unsigned char*& ptr) noexcept {
  if (!m_prepared.load()) {
    KAVO_LOG_ERROR(POOL_LOG_UNIT, "GetMemForValues failed, please PrepareMemForValues first");
    return KAVO_NO_MEMORY;
  }
  if (index >= m_count) {
    KAVO_LOG_ERROR(POOL_LOG_UNIT, "GetMemForValues failed, number lager(%llu) than init(%llu)", index, m_count);
    return KAVO_INVALID;
  }
  unsigned char state = IN_STOCK;
  if (!Flag(index).compare_exchange_strong(state, RELEASED) && state == TAKEN) {
    KAVO_LOG_ERROR(POOL_LOG_UNIT, "GetMemForValues failed, index(%llu) is taken", index);
    return KAVO_INVALID;
  }
  ptr = m_layout.At(m_mem.Data(), index);
  HandOut(ptr);
  return KAVO_SUCCESS;
}

void MemoryPool::Register(ThreadIndex& record) noexcept {
  // relaxed: the numbers are distinct in any order, and nothing is read on the strength of one.
  const unsigned long long n = m_threadNum.fetch_add(1, std::memory_order_relaxed);
  record.serial = m_serial.Value();
  record.start = StartOffset(n, m_count);
  // relaxed: says only that a scan would find nothing; who misses it scans and finds the same. Spares threads that
  // come when the stock is gone the walk over all its flags.
  record.cursor = m_allTaken.load(std::memory_order_relaxed) ? record.start + m_count : record.start;
}

bool MemoryPool::TakeFromStock(ThreadIndex& record, unsigned char available, NumberedBlock& block) noexcept {
  const unsigned long long end = record.start + m_count;
  if (record.cursor >= end) {
    return false;
  }
  do {
    const unsigned long long position = record.cursor++;
    const unsigned long long slot = position < m_count ? position : position - m_count;
    const AtomicRef<unsigned char> flag = Flag(slot);
    if (flag.load() != available) {
      continue;
    }
    KAVO_TEST_POINT("MemoryPool::TakeFromStock slot seen available");
    unsigned char expected = available;
    if (flag.compare_exchange_strong(expected, TAKEN)) {
      block = {m_layout.At(m_mem.Data(), slot), static_cast<BlockNumber>(slot)};
      return true;
    }
  } while (record.cursor < end);
  if (available == IN_STOCK) {
    m_allTaken.store(true, std::memory_order_relaxed);  // relaxed: see Register
  }
  return false;
}

MemoryPool::Usage MemoryPool::GetUsage() {
  const FreshBlocks::Usage fresh = m_fresh.GetUsage();
  const unsigned long long handedOut = (fresh.blocks + StockTaken()) * m_layout.stride;
  return {handedOut, fresh.bytes + m_mem.Bytes() + m_memFlags.Bytes() - handedOut};
}

// Threads walk the stock from their starting points, which divide it into segments of equal length; in each the taken
// slots come first, and a search finds where they end. Not so for a moment beside inserts, nor where a prepared stock
// was fetched with gaps, nor with more threads than segments: then it is an estimate.
unsigned long long MemoryPool::StockTaken() const noexcept {
  constexpr unsigned long long MOST_SEGMENTS = 256;
  // relaxed, here and below: a statistic.
  const unsigned long long threads = m_threadNum.load(std::memory_order_relaxed);
  const unsigned long long segments = threads < MOST_SEGMENTS ? std::bit_ceil(threads | 1) : MOST_SEGMENTS;
  unsigned long long taken = 0;
  for (unsigned long long segment = 0; segment < segments; ++segment) {
    const unsigned long long first = m_count * segment / segments;
    unsigned long long low = first;
    unsigned long long high = m_count * (segment + 1) / segments;
    while (low < high) {
      const unsigned long long middle = low + (high - low) / 2;
      if (Flag(middle).load(std::memory_order_relaxed) == TAKEN) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    taken += low - first;
  }
  return taken;
}

AtomicRef<unsigned char> MemoryPool::Flag(unsigned long long slot) const noexcept {
  return AtomicRef<unsigned char>(static_cast<unsigned char*>(m_memFlags.Data())[slot]);
}

void MemoryPool::HandOut(unsigned char* block) const noexcept {
  PoisonBehindValue(block, m_blockSize, m_layout);
}

}  // namespace Qen
