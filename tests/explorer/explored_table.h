// A hash table as scenarios use it: reaching into its growth, and telling what it is left like.
#pragma once

#include <set>
#include <string>

#include "hash/test_table.h"

namespace KavoExplorer {

class ExploredTable final : public KavoTest::TestTable {
 public:
  using Core = KavoTest::Core;
  using TestTable::TestTable;

  Core* Generation(unsigned index) const;
  int BuildNext(Core* core) {
    Core* next = nullptr;
    return Build(core, next);
  }
  int MoveBucket(Core* core, unsigned long long bucket, Core* destination) {
    MovedCount moved{core};
    return StatusOf(TestTable::MoveBucket(core, bucket, destination, moved));
  }
  int OfferFailing(long key);  // its insert callback fails
  std::multiset<long> WalkedKeys();
  // Empty, or what somebody has left half done.
  std::string Leftovers() const;
  std::string NameOf(const void* where) const;
};

}  // namespace KavoExplorer
