// What an embedding knows of its snapshots. Only whoever has entered touches it: one save, load or update at a time.
#pragma once

#include "platform/atomic.h"
#include "snapshot/format.h"

namespace Qen {

struct SnapshotState {
  SaveIdentity last;      // the snapshot that it stands at: saved, loaded, or followed
  std::uint64_t cut = 0;  // an increment after that takes rows with this number or a later one; 0: none may be saved
  unsigned mark = 0;      // in the heads of rows, of the last save; from 1 on
  unsigned shard = 0;     // of `shards`: the keys that were loaded
  unsigned shards = 1;

  // Acquire and release: who enters sees what the one before has left.
  bool TryEnter() noexcept { return !m_entered.exchange(true, std::memory_order_acquire); }
  void Leave() noexcept { m_entered.store(false, std::memory_order_release); }

 private:
  Atomic<bool> m_entered{false};
};

}  // namespace Qen
