#include "sharded_lookup/workload.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <functional>
#include <span>
#include <thread>

namespace ShardedLookup {
namespace {

// Keys routed by one call. Enough to make the map's lock and the hand-over to a server cheap, few enough to stay in the
// processor's cache.
constexpr std::size_t BATCH = 1024;

// Deals out the keys in batches to `threads` threads. Each has a state of its own, made by `State(cluster)`, which gets
// every batch with the owners of its keys. Returns the states; the first exception of a thread ends the work.
template <class State>
std::vector<State> Run(const Cluster& cluster, const std::vector<Key>& keys, unsigned threads) {
  std::vector<State> states(threads, State(cluster));
  std::vector<std::exception_ptr> errors(threads);
  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  const auto work = [&](std::size_t index) {
    try {
      std::array<unsigned, BATCH> psIds{};
      // Relaxed, both: the keys stand still, and the threads share nothing but the numbers.
      while (!failed.load(std::memory_order_relaxed)) {
        const std::size_t begin = next.fetch_add(BATCH, std::memory_order_relaxed);
        if (begin >= keys.size()) {
          return;
        }
        const std::span<const Key> batch(&keys[begin], std::min(BATCH, keys.size() - begin));
        const std::span<unsigned> owners = std::span(psIds).first(batch.size());
        cluster.Map().Route(batch, owners);
        states[index].Process(batch, owners);
      }
    } catch (...) {
      errors[index] = std::current_exception();
      failed.store(true, std::memory_order_relaxed);
    }
  };
  {
    std::vector<std::jthread> running;
    for (unsigned index = 0; index < threads; ++index) {
      running.emplace_back(work, index);
    }
  }
  for (const std::exception_ptr& error : errors) {
    if (error != nullptr) {
      std::rethrow_exception(error);
    }
  }
  return states;
}

class Storing {
 public:
  explicit Storing(const Cluster& cluster)
      : m_cluster(&cluster), m_groups(cluster.Servers()), m_keysOf(cluster.Servers()) {}

  void Process(std::span<const Key> keys, std::span<const unsigned> psIds) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      m_groups[Cluster::ServerOf(psIds[i])].push_back(keys[i]);
    }
    for (std::size_t server = 0; server < m_groups.size(); ++server) {
      // One request to a real server.
      for (const Key key : m_groups[server]) {
        Store(m_cluster->Table(server), key);
      }
      m_keysOf[server] += m_groups[server].size();
      m_groups[server].clear();
    }
  }

  const std::vector<std::uint64_t>& KeysOf() const { return m_keysOf; }

 private:
  const Cluster* m_cluster;
  std::vector<std::vector<Key>> m_groups;  // by server; emptied, not freed, after each batch
  std::vector<std::uint64_t> m_keysOf;
};

class Verifying {
 public:
  explicit Verifying(const Cluster& cluster) : m_cluster(&cluster) {}

  void Process(std::span<const Key> keys, std::span<const unsigned> psIds) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      // Worked out without the map.
      const auto owner = static_cast<std::size_t>(keys[i] % m_cluster->Servers());
      m_result.misrouted += Cluster::ServerOf(psIds[i]) == owner ? 0 : 1;
      for (std::size_t server = 0; server < m_cluster->Servers(); ++server) {
        Count(Find(m_cluster->Table(server), keys[i]), server == owner);
      }
    }
  }

  const Verification& Result() const { return m_result; }

 private:
  void Count(Answer answer, bool isOwner) {
    const bool isAbsent = answer == Answer::ABSENT;
    if (!isOwner) {
      ++(isAbsent ? m_result.absent : m_result.strays);
    } else if (isAbsent) {
      ++m_result.lost;
    } else {
      ++(answer == Answer::PRESENT ? m_result.found : m_result.garbled);
    }
  }

  const Cluster* m_cluster;
  Verification m_result;
};

}  // namespace

std::vector<std::uint64_t> StoreKeys(const Cluster& cluster, const std::vector<Key>& keys, unsigned threads) {
  std::vector<std::uint64_t> keysOf(cluster.Servers());
  for (const Storing& state : Run<Storing>(cluster, keys, threads)) {
    std::transform(keysOf.begin(), keysOf.end(), state.KeysOf().begin(), keysOf.begin(), std::plus<>());
  }
  return keysOf;
}

Verification Verify(const Cluster& cluster, const std::vector<Key>& keys, unsigned threads) {
  Verification result;
  for (const Verifying& state : Run<Verifying>(cluster, keys, threads)) {
    const Verification& part = state.Result();
    result.found += part.found;
    result.misrouted += part.misrouted;
    result.lost += part.lost;
    result.garbled += part.garbled;
    result.strays += part.strays;
    result.absent += part.absent;
  }
  return result;
}

}  // namespace ShardedLookup
