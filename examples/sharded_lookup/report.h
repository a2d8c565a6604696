// What the user sees.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sharded_lookup/key_sets.h"
#include "sharded_lookup/workload.h"

namespace ShardedLookup {

void PrintHeading(unsigned servers, std::size_t keys, unsigned threads);
// `stored`: keys by server.
void PrintKeySet(const KeySet& set, const std::vector<std::uint64_t>& stored, const Verification& verified);
void PrintAdvice();

}  // namespace ShardedLookup
