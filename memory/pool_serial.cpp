#include "memory/pool_serial.h"

#include <cstddef>
#include <mutex>

#include "platform/mutex.h"

namespace Qen {
namespace {

// The live serials, chained through their owners by value modulo CHAIN_COUNT. Neither the lock nor the chains need a
// constructor or a destructor: tables may be destroyed while the library is being unloaded.
constexpr std::size_t CHAIN_COUNT = 64;
constinit Mutex g_mutex;
constinit PoolSerial* g_chains[CHAIN_COUNT]{};  // guarded by g_mutex
constinit unsigned long long g_lastSerial = 0;  // guarded by g_mutex

PoolSerial*& ChainOf(unsigned long long serial) noexcept {
  return g_chains[serial % CHAIN_COUNT];
}

}  // namespace

PoolSerial::PoolSerial() {
  const std::lock_guard<Mutex> lock(g_mutex);
  m_value = ++g_lastSerial;
  m_next = ChainOf(m_value);
  ChainOf(m_value) = this;
}

PoolSerial::~PoolSerial() {
  const std::lock_guard<Mutex> lock(g_mutex);
  PoolSerial** link = &ChainOf(m_value);
  while (*link != this) {
    link = &(*link)->m_next;
  }
  *link = m_next;
}

bool PoolSerial::IsLive(unsigned long long serial) {
  const std::lock_guard<Mutex> lock(g_mutex);
  for (const PoolSerial* owner = ChainOf(serial); owner != nullptr; owner = owner->m_next) {
    if (owner->m_value == serial) {
      return true;
    }
  }
  return false;
}

}  // namespace Qen
