// Spreads keys over parameter servers with the partition map, and shows what that does to different kinds of keys.
//
//   sharded_lookup --servers 8 --keys 1000000 --threads 4
//
// Reading order for the library's sake: cluster (routing in batches, from several threads), and here how those keys are
// spread that are not.
//
// Exits with 1 when a key is not on the server that owns it, is on another one too, hashed keys are not spread, or a
// call fails.
#include <algorithm>
#include <cmath>
#include <thread>

#include "program.h"
#include "sharded_lookup/cluster.h"

namespace ShardedLookup {
namespace {

using Examples::Count;
using Examples::Rule;

struct Arguments {
  unsigned servers = 4;
  std::size_t keys = 500'000;
  unsigned threads = std::clamp(std::thread::hardware_concurrency(), 1U, 1024U);
  Key seed = 1;
};

void Declare(CLI::App& app, Arguments& arguments) {
  app.add_option("--servers", arguments.servers, "Parameter servers, each a Kavo table")
      ->check(CLI::Range(1U, Cluster::MAX_SERVERS));
  app.add_option("--keys", arguments.keys, "Keys of each set")->check(CLI::Range(std::size_t{1}, std::size_t{1} << 30));
  app.add_option("--threads", arguments.threads, "Threads that route, store and look up")->check(CLI::Range(1U, 1024U));
  app.add_option("--seed", arguments.seed, "Seed of the random keys");
}

// One-to-one, from 0 to 2^63 - 1, which are the table's keys.
Key HashKey(Key key) {
  return static_cast<Key>(kavo::MixKey(static_cast<long>(key)));
}

// `num` keys, keyOf(0), keyOf(1), ...
template <class KeyOf>
std::vector<Key> Keys(std::size_t num, const KeyOf& keyOf) {
  std::vector<Key> keys(num);
  for (std::size_t i = 0; i < num; ++i) {
    keys[i] = keyOf(i);
  }
  return keys;
}

void PrintShares(const std::vector<std::uint64_t>& stored, double even) {
  fmt::print("{:>8}{:>16}{:>12}{:>14}\n", "server", "keys", "share", "deviation");
  for (std::size_t server = 0; server < stored.size(); ++server) {
    const double times = static_cast<double>(stored[server]) / even;
    fmt::print("{:>8}{:>16}{:>10.2f} %{:>+12.2f} %\n", Cluster::FIRST_PS_ID + server, Count(stored[server]),
               100.0 * times / static_cast<double>(stored.size()), 100.0 * (times - 1.0));
  }
  fmt::print("\n{:<20}{:.2f} times an even share\n", "busiest server",
             static_cast<double>(*std::ranges::max_element(stored)) / even);
}

// Throws unless each key is where it belongs, and if `spread`, each share is within six standard deviations of what
// keys that fall on servers at random would give.
void RunKeySet(const Arguments& arguments, const char* name, const std::string& note, const std::vector<Key>& keys,
               bool spread) {
  const Cluster cluster(arguments.servers, keys.size());
  cluster.Store(keys, arguments.threads);
  const std::vector<std::uint64_t> stored = cluster.Stored();
  const Verification verified = cluster.Verify(keys, arguments.threads);
  const double even = static_cast<double>(keys.size()) / static_cast<double>(stored.size());
  Rule();
  fmt::print("{}: {}\n\n", name, note);
  PrintShares(stored, even);
  fmt::print("{:<20}{} on their owner, {} lookups elsewhere missed: {}\n", "found", Count(verified.found),
             Count(verified.absent), verified.Passed() ? "verified" : "VERIFICATION FAILED");
  if (!verified.Passed()) {
    throw std::runtime_error(fmt::format("{} keys routed wrongly, {} lost, {} with another value, {} on another server",
                                         verified.misrouted, verified.lost, verified.garbled, verified.strays));
  }
  const double tolerance = 6.0 * std::sqrt(even * (1.0 - 1.0 / static_cast<double>(stored.size())));
  for (const std::uint64_t share : stored) {
    if (spread && std::abs(static_cast<double>(share) - even) > tolerance) {
      throw std::runtime_error(fmt::format("{} keys are not spread", name));
    }
  }
}

void Run(const Arguments& arguments) {
  // Most misses are what the verification hopes for, and it reports the others itself.
  const kavo::LogSink log([](const kavo::LogLine& line) {
    if (line.Format().find("LookUpWithValLen failed") == std::string_view::npos) {
      std::fputs(line.Text().data(), stderr);
    }
  });
  fmt::print("{} keys over {} servers, {} threads. Deviation: from an even share.\n", Count(arguments.keys),
             arguments.servers, arguments.threads);
  const Key first = HashKey(arguments.seed);
  const Key servers = arguments.servers;
  const std::vector<Key> hostile = Keys(arguments.keys, [=](Key i) { return i * servers; });
  RunKeySet(arguments, "dense", "0, 1, 2, ...", Keys(arguments.keys, [](Key i) { return i; }), false);
  RunKeySet(arguments, "random", "over the whole range of keys",
            Keys(arguments.keys, [=](Key i) { return HashKey(first + i); }), true);
  RunKeySet(arguments, "hostile", fmt::format("multiples of {}, the number of servers", servers), hostile, false);
  RunKeySet(arguments, "hostile, hashed", "the same keys, hashed one-to-one before they are routed and stored",
            Keys(arguments.keys, [&](Key i) { return HashKey(hostile[i]); }), true);
  Rule();
  fmt::print(
      "The map takes a key's remainder and does not mix keys. Keys that follow a pattern\n"
      "may all have one owner: hash them first, with a one-to-one function\n"
      "(kavo::MixKey), and use the hash as the key from there on.\n");
}

}  // namespace
}  // namespace ShardedLookup

int main(int argc, char** argv) {
  CLI::App app("Spreads keys over parameter servers, each a Kavo table, with the partition map.", "sharded_lookup");
  return Examples::Main<ShardedLookup::Arguments>(app, argc, argv, ShardedLookup::Declare, ShardedLookup::Run);
}
