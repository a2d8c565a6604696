#include "sharded_lookup/report.h"

#include <algorithm>

#include "program.h"

namespace ShardedLookup {
namespace {

using Examples::Count;
using Examples::Rule;

}  // namespace

void PrintHeading(unsigned servers, std::size_t keys, unsigned threads) {
  fmt::print("{} keys over {} servers, {} threads. Deviation: from an even share.\n", Count(keys), servers, threads);
}

void PrintKeySet(const KeySet& set, const std::vector<std::uint64_t>& stored, const Verification& verified) {
  const double total = static_cast<double>(set.keys.size());
  const double even = total / static_cast<double>(stored.size());
  Rule();
  fmt::print("{}: {}\n\n", set.name, set.note);
  fmt::print("{:>8}{:>16}{:>12}{:>14}\n", "server", "keys", "share", "deviation");
  for (std::size_t server = 0; server < stored.size(); ++server) {
    const double keys = static_cast<double>(stored[server]);
    fmt::print("{:>8}{:>16}{:>10.2f} %{:>+12.2f} %\n", Cluster::FIRST_PS_ID + server, Count(stored[server]),
               100.0 * keys / total, 100.0 * (keys / even - 1.0));
  }
  const auto busiest = *std::max_element(stored.begin(), stored.end());
  fmt::print("\n{:<20}{:.2f} times an even share\n", "busiest server", static_cast<double>(busiest) / even);
  fmt::print("{:<20}{} on their owner, {} lookups elsewhere missed: {}\n", "found", Count(verified.found),
             Count(verified.absent), verified.Passed() ? "verified" : "VERIFICATION FAILED");
  if (!verified.Passed()) {
    fmt::print("{:<20}{} routed wrongly, {} lost, {} with another value, {} found on another server\n", "",
               Count(verified.misrouted), Count(verified.lost), Count(verified.garbled), Count(verified.strays));
  }
}

void PrintAdvice() {
  Rule();
  fmt::print(
      "The map takes a key's remainder and does not mix keys. Keys that follow a pattern\n"
      "may all have one owner: hash them first, with a one-to-one function\n"
      "(kavo::MixKey), and use the hash as the key from there on.\n");
}

}  // namespace ShardedLookup
