// Spreads keys over parameter servers with the partition map, and shows what that does to different kinds of keys.
//
//   sharded_lookup --servers 8 --keys 1000000 --threads 4
//
// Reading order for the library's sake: cluster (the calls), workload (routing in batches, from several threads),
// key_sets (the keys, and how those are spread that are not).
//
// Exits with 1 when a key is not on the server that owns it, is on another one too, hashed keys are not spread, or a
// call fails.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <kavo.hpp>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <vector>

#include "program.h"
#include "sharded_lookup/cluster.h"
#include "sharded_lookup/key_sets.h"
#include "sharded_lookup/report.h"
#include "sharded_lookup/workload.h"

namespace ShardedLookup {
namespace {

struct Arguments {
  unsigned servers = 4;
  std::size_t keys = 500'000;
  unsigned threads = std::clamp(std::thread::hardware_concurrency(), 1U, 1024U);
  Key seed = 1;
};

void Declare(CLI::App& app, Arguments& arguments) {
  app.add_option("--servers", arguments.servers, "Parameter servers, each a Kavo table")
      ->check(CLI::Range(1U, Cluster::MAX_SERVERS))
      ->capture_default_str();
  app.add_option("--keys", arguments.keys, "Keys of each set")
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 30))
      ->capture_default_str();
  app.add_option("--threads", arguments.threads, "Threads that route, store and look up")
      ->check(CLI::Range(1U, 1024U))
      ->capture_default_str();
  app.add_option("--seed", arguments.seed, "Seed of the random keys")->capture_default_str();
}

// Whether each share is within six standard deviations of what keys that fall on servers at random would give.
bool EvenShares(const std::vector<std::uint64_t>& stored, std::size_t keys) {
  const double even = static_cast<double>(keys) / static_cast<double>(stored.size());
  const double tolerance = 6.0 * std::sqrt(even * (1.0 - 1.0 / static_cast<double>(stored.size())));
  return std::ranges::all_of(
      stored, [=](std::uint64_t share) { return std::abs(static_cast<double>(share) - even) <= tolerance; });
}

bool RunKeySet(const Arguments& arguments, const KeySet& set) {
  const Cluster cluster(arguments.servers, set.keys.size());
  const std::vector<std::uint64_t> stored = StoreKeys(cluster, set.keys, arguments.threads);
  const Verification verified = Verify(cluster, set.keys, arguments.threads);
  PrintKeySet(set, stored, verified);
  const bool asSpreadAsSaid = !set.spread || EvenShares(stored, set.keys.size());
  if (!asSpreadAsSaid) {
    fmt::print(stderr, "sharded_lookup: {} keys are not spread\n", set.name);
  }
  return verified.Passed() && asSpreadAsSaid;
}

void Run(const Arguments& arguments) {
  // Most misses are what the verification hopes for, and it reports the others itself.
  const kavo::LogSink log([](const kavo::LogLine& line) {
    if (line.Format().find("LookUpWithValLen failed") == std::string_view::npos) {
      std::fputs(line.Text().data(), stderr);
    }
  });
  PrintHeading(arguments.servers, arguments.keys, arguments.threads);
  bool passed = RunKeySet(arguments, DenseKeys(arguments.keys));
  passed = RunKeySet(arguments, RandomKeys(arguments.keys, arguments.seed)) && passed;
  const KeySet hostile = HostileKeys(arguments.keys, arguments.servers);
  passed = RunKeySet(arguments, hostile) && passed;
  passed = RunKeySet(arguments, HashedKeys(hostile)) && passed;
  PrintAdvice();
  if (!passed) {
    throw std::runtime_error("verification failed");
  }
}

}  // namespace
}  // namespace ShardedLookup

int main(int argc, char** argv) {
  CLI::App app("Spreads keys over parameter servers, each a Kavo table, with the partition map.", "sharded_lookup");
  ShardedLookup::Arguments arguments;
  ShardedLookup::Declare(app, arguments);
  return Examples::Main(app, argc, argv, [&arguments] { ShardedLookup::Run(arguments); });
}
