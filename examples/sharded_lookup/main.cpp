// Spreads keys over parameter servers with the partition map, and shows what that does to different kinds of keys.
//
//   sharded_lookup --servers 8 --keys 1000000 --threads 4
//
// Reading order for the library's sake: cluster (the calls), workload (routing in batches, from several threads),
// key_sets (the keys, and the hash for those that are not spread), library_log (the log lines).
//
// Exits with 1 when a key is not on the server that owns it, is on another one too, or a call fails.
#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <thread>
#include <vector>

#include "sharded_lookup/cluster.h"
#include "sharded_lookup/key_sets.h"
#include "sharded_lookup/library_log.h"
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

bool RunKeySet(const Arguments& arguments, const KeySet& set) {
  const Cluster cluster(arguments.servers, set.keys.size());
  const std::vector<std::uint64_t> stored = StoreKeys(cluster, set.keys, arguments.threads);
  const Verification verified = Verify(cluster, set.keys, arguments.threads);
  PrintKeySet(set, stored, verified);
  return verified.Passed();
}

bool Run(const Arguments& arguments) {
  const LibraryLog libraryLog;
  PrintHeading(arguments.servers, arguments.keys, arguments.threads);
  bool passed = RunKeySet(arguments, DenseKeys(arguments.keys));
  passed = RunKeySet(arguments, RandomKeys(arguments.keys, arguments.seed)) && passed;
  const KeySet hostile = HostileKeys(arguments.keys, arguments.servers);
  passed = RunKeySet(arguments, hostile) && passed;
  passed = RunKeySet(arguments, HashedKeys(hostile)) && passed;
  PrintAdvice();
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    throw std::runtime_error("standard output: cannot be written");
  }
  return passed;
}

}  // namespace
}  // namespace ShardedLookup

int main(int argc, char** argv) {
  CLI::App app("Spreads keys over parameter servers, each a Kavo table, with the partition map.");
  try {
    ShardedLookup::Arguments arguments;
    ShardedLookup::Declare(app, arguments);
    app.parse(argc, argv);
    if (!ShardedLookup::Run(arguments)) {
      fmt::print(stderr, "sharded_lookup: verification failed\n");
      return 1;
    }
    return 0;
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  } catch (const std::exception& error) {
    fmt::print(stderr, "sharded_lookup: {}\n", error.what());
    return 1;
  }
}
