#include "sharded_lookup/cluster.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <numeric>

namespace ShardedLookup {
namespace {

// A name for the map, compared when it is installed again. It has no part in the mapping.
constexpr unsigned PARTITION_NUM = 1;

// Keys routed by one call. Enough to make the map's lock and the hand-over to a server cheap, few enough to stay in the
// processor's cache.
constexpr std::size_t BATCH = 1024;

std::vector<unsigned> PsIds(unsigned servers) {
  std::vector<unsigned> psIds(servers);
  std::iota(psIds.begin(), psIds.end(), Cluster::FIRST_PS_ID);
  return psIds;
}

}  // namespace

Cluster::Cluster(unsigned servers, std::size_t keys) : m_map(PARTITION_NUM, PsIds(servers)) {
  // Room for an even share; a server that gets more grows. A value is the key itself, so that a mix-up shows.
  const auto share = static_cast<unsigned>(keys / servers + 1);
  for (const unsigned psId : PsIds(servers)) {
    m_tables.emplace_back(psId, share, sizeof(Key));
  }
}

// work(keys, owners) for all batches, on all threads.
template <class Work>
void Cluster::ForBatches(std::span<const Key> keys, unsigned threads, const Work& work) const {
  std::atomic<std::size_t> next{0};
  std::vector<std::future<void>> running;
  for (unsigned i = 0; i < threads; ++i) {
    running.push_back(std::async(std::launch::async, [&] {
      std::vector<unsigned> psIds(BATCH);
      // Relaxed, both: hands out numbers; the keys stand still.
      for (std::size_t begin = next.fetch_add(BATCH, std::memory_order_relaxed); begin < keys.size();
           begin = next.fetch_add(BATCH, std::memory_order_relaxed)) {
        const std::span<const Key> batch = keys.subspan(begin, std::min(BATCH, keys.size() - begin));
        const std::span<unsigned> owners = std::span(psIds).first(batch.size());
        m_map.Route(batch, owners);
        work(batch, owners);
      }
    }));
  }
  for (std::future<void>& thread : running) {
    thread.get();
  }
}

void Cluster::Store(std::span<const Key> keys, unsigned threads) const {
  ForBatches(keys, threads, [this](std::span<const Key> batch, std::span<const unsigned> psIds) {
    std::vector<std::vector<Key>> groups(m_tables.size());
    for (std::size_t i = 0; i < batch.size(); ++i) {
      groups[psIds[i] - FIRST_PS_ID].push_back(batch[i]);
    }
    for (std::size_t server = 0; server < groups.size(); ++server) {
      // One request to a real server. Exactly one thread creates a key, so exactly one writes its value.
      for (const Key key : groups[server]) {
        const auto [row, created] = m_tables[server].LookupOrInsert<Key>(static_cast<long>(key));
        if (created) {
          row.front() = key;
        }
      }
    }
  });
}

std::vector<std::uint64_t> Cluster::Stored() const {
  std::vector<std::uint64_t> stored;
  for (const kavo::Table& server : m_tables) {
    stored.push_back(server.CountEntries());
  }
  return stored;
}

Verification Cluster::Verify(std::span<const Key> keys, unsigned threads) const {
  Verification result;
  std::mutex mutex;  // guards it
  ForBatches(keys, threads, [&](std::span<const Key> batch, std::span<const unsigned> psIds) {
    Verification part;
    for (std::size_t i = 0; i < batch.size(); ++i) {
      VerifyKey(batch[i], psIds[i], part);
    }
    const std::lock_guard lock(mutex);
    for (const auto count : {&Verification::found, &Verification::misrouted, &Verification::lost,
                             &Verification::garbled, &Verification::strays, &Verification::absent}) {
      result.*count += part.*count;
    }
  });
  return result;
}

void Cluster::VerifyKey(Key key, unsigned psId, Verification& result) const {
  // Worked out without the map.
  const std::size_t owner = key % m_tables.size();
  result.misrouted += psId - FIRST_PS_ID == owner ? 0 : 1;
  for (std::size_t server = 0; server < m_tables.size(); ++server) {
    const auto row = m_tables[server].TryLookup<Key>(static_cast<long>(key));
    if (server != owner) {
      ++(row ? result.strays : result.absent);
    } else if (!row) {
      ++result.lost;
    } else {
      ++(row->front() == key ? result.found : result.garbled);
    }
  }
}

}  // namespace ShardedLookup
