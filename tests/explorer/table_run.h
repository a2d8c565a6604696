// Scenarios on one hash table: what each thread does, as a list of calls, and the promises held against it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "explorer/explore.h"
#include "explorer/ledger.h"
#include "explorer/scheduler.h"
#include "hash/hcore.h"
#include "hash/test_table.h"
#include "kavo.hpp"
#include "platform/test_hooks.h"

namespace KavoExplorer {

using KavoTest::Core;
using Qen::HCore::BUCKET_MOVED;
using Qen::HCore::BUCKET_MOVING;
using Qen::HCore::EMPTY_KEY;
using Qen::HCore::MAP_BUILDING;

// Once for the process: no log lines, which scenarios with failing calls are full of, and no long waits outside of
// them.
inline void Silence() {
  static const kavo::LogSink silent([](const kavo::LogLine&) {});
  Qen::TestHooks::SetWaitLimit(1);  // of calls outside the scheduler: nobody is there to wait for
}

class TableRun final : public ScenarioRun {
 public:
  explicit TableRun(unsigned long long cells) : table(cells) {
    Silence();
    WatchTestPoints([this](unsigned thread, const char* point) {
      if (failsMove[thread] && point == std::string_view("Mover.Copied")) {
        failsMove[thread] = false;
        throw std::runtime_error("a lock reports an error");
      }
    });
  }
  ~TableRun() override { WatchTestPoints(); }
  TableRun(const TableRun&) = delete;
  TableRun& operator=(const TableRun&) = delete;

  std::string Check() override {
    if (ledger.Failure().empty()) {
      if (std::string leftovers = Leftovers(); !leftovers.empty()) {
        return leftovers;
      }
      ledger.CheckAtRest([this](long key) { return table.BlockOf(key); }, WalkedKeys());
    }
    return ledger.Failure();
  }

  std::string NameOf(const void* where) const override {
    for (const Core* core = table.FirstGeneration(); core != nullptr; core = core->Next()) {
      const std::size_t offset =
          reinterpret_cast<std::uintptr_t>(where) - reinterpret_cast<std::uintptr_t>(&core->CellAt(0));
      if (offset < core->TableSize() * sizeof(Core::Cell)) {
        return "cell " + std::to_string(offset / sizeof(Core::Cell)) + " of " + std::to_string(core->TableSize()) +
               " byte " + std::to_string(offset % sizeof(Core::Cell));
      }
    }
    return ScenarioRun::NameOf(where);
  }

  Core* Generation(unsigned index) const {
    Core* core = table.FirstGeneration();
    for (; index > 0; --index) {
      core = core->Next();
    }
    return core;
  }

  std::multiset<long> WalkedKeys() {
    std::multiset<long> keys;
    for (KavoTest::Walk walk(table); !walk.AtEnd(); walk.Next()) {
      keys.insert(walk.EntryKey());
    }
    return keys;
  }

  KavoTest::TestTable table;
  Ledger ledger;
  bool failsMove[MAX_THREADS] = {};  // the thread's next move of a bucket ends with an exception

 private:
  // Empty, or what somebody has left half done.
  std::string Leftovers() const {
    for (const Core* core = table.FirstGeneration(); core != nullptr; core = core->Next()) {
      if (core->Next() != nullptr && core->Next()->TableSize() != 2 * core->TableSize()) {
        return "a generation that was built twice";
      }
      if (core->IsDeleted()) {
        continue;  // its cells may be zero
      }
      for (unsigned long long i = 0; i < core->TableSize(); ++i) {
        const Core::Cell& cell = core->CellAt(i);
        const unsigned flags = cell.flags.Load();
        if ((flags & (BUCKET_MOVING | BUCKET_MOVED)) == BUCKET_MOVING || (flags & MAP_BUILDING) != 0) {
          return "flags " + std::to_string(flags) + ", " + NameOf(&cell);
        }
        if (cell.LoadKey() != EMPTY_KEY && cell.value.State() == Qen::RecordState::FILLING) {
          return "a record that nobody fills, " + NameOf(&cell);
        }
      }
    }
    return {};
  }
};

using Call = std::function<void(TableRun&)>;

inline Call Offer(long key) {
  return [key](TableRun& run) {
    const KavoTest::Offered offered = run.table.Offer(key);
    run.ledger.Offered(key, offered.status, offered.block);
  };
}

// The insert callback can have no block.
inline Call OfferFailing(long key) {
  return [key](TableRun& run) {
    const auto noBlock = [](Qen::HashValue&) { return static_cast<int>(KAVO_NO_MEMORY); };
    if (run.table.InsertOrFind(key, noBlock, [](unsigned char&) { return 0; }) == Qen::ENTRY_INSERTED) {
      run.ledger.Fail(key, "an insert without a block succeeded");
    }
  };
}

// The n-th allocation and all later ones fail.
inline Call OfferWithout(long key, unsigned long long nth) {
  return [key, nth](TableRun& run) {
    Qen::TestHooks::FailAllocation(nth, true);
    const KavoTest::Offered offered = run.table.Offer(key);
    Qen::TestHooks::FailAllocation(0);
    if (offered.status >= 0) {
      run.ledger.Offered(key, offered.status, offered.block);
    }
  };
}

// An offer without any growth; tells nothing if the key is there.
inline Call Claim(long key) {
  return [key](TableRun& run) {
    if (const Core::Entry entry = run.table.Claim(key); entry.record != nullptr) {
      run.ledger.Offered(key, Qen::ENTRY_INSERTED, entry.block);
    }
  };
}

inline Call Walk() {
  return [](TableRun& run) {
    const std::set<long> before = run.ledger.CompletedKeys();
    run.ledger.Walked(before, run.WalkedKeys());
  };
}

inline Call Look(long key) {
  return [key](TableRun& run) {
    const void* const before = run.ledger.Completed(key);
    run.ledger.LookedUp(key, before, run.table.BlockOf(key));
  };
}

// No growth, whatever the threshold says.
inline Call Fill(std::vector<long> keys) {
  return [keys](TableRun& run) {
    for (const long key : keys) {
      run.ledger.Offered(key, Qen::ENTRY_INSERTED, run.table.Store(key));
    }
  };
}

// With keys from `key` on, until it must grow.
inline Call FillGeneration(unsigned generation, long key) {
  return [=](TableRun& run) {
    for (long next = key; !run.Generation(generation)->IsOverMapThreshold(); ++next) {
      const Core::Entry entry = run.table.Claim(next);
      run.ledger.Offered(next, Qen::ENTRY_INSERTED, entry.record != nullptr ? entry.block : nullptr);
    }
  };
}

// Moves the current generation.
inline Call Grow() {
  return [](TableRun& run) { static_cast<void>(run.table.Grow()); };
}

inline Call MoveGeneration(unsigned generation) {
  return [generation](TableRun& run) { static_cast<void>(run.table.MoveGeneration(run.Generation(generation))); };
}

inline Call MoveBucket(unsigned generation, unsigned long long bucket) {
  return [=](TableRun& run) {
    Core* const core = run.Generation(generation);
    Core* next = nullptr;
    static_cast<void>(run.table.Build(core, next));
    run.table.MoveOne(core, bucket, core->Next());
  };
}

// The first move of a bucket in the call, which is thread `thread`'s, is given up when all is copied.
inline Call WithFailingMove(unsigned thread, Call call) {
  return [thread, call = std::move(call)](TableRun& run) {
    run.failsMove[thread] = true;
    try {
      call(run);
    } catch (const std::runtime_error&) {
      // as the table does
    }
    run.failsMove[thread] = false;
  };
}

// Of the oldest of three generations, into the third.
inline Call MoveBucketOverMiddle(unsigned long long bucket) {
  return [=](TableRun& run) { run.table.MoveOne(run.Generation(0), bucket, run.Generation(2)); };
}

inline Call BuildGenerations(unsigned count) {
  return [count](TableRun& run) {
    Core* newest = run.Generation(0);
    for (unsigned built = 1; built < count; ++built) {
      static_cast<void>(run.table.Build(newest, newest));
    }
  };
}

inline Call GradualGrowth() {
  return [](TableRun& run) { run.table.SetRehashType(Qen::REHASH_GRADUAL); };
}

inline Call InOrder(std::vector<Call> calls) {
  return [calls](TableRun& run) {
    for (const Call& call : calls) {
      call(run);
    }
  };
}

// Keys that fill 8 cells, and with one that goes to the map of bucket 0.
inline const std::vector<long> FULL = {0, 1, 2, 3, 4, 5, 6, 7};
inline const std::vector<long> FULL_WITH_MAP = {0, 1, 2, 3, 4, 5, 6, 7, 8};

// Every order of the threads' steps that the budget reaches keeps the promises, if `before` has happened first.
inline void ExpectHolds(const Call& before, const std::vector<Call>& threads, unsigned long long cells = 8) {
  ExpectCallsHold<TableRun>({before}, threads, cells);
}

}  // namespace KavoExplorer
