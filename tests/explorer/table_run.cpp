#include "explorer/table_run.h"

#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "explorer/explore.h"
#include "explorer/explored_table.h"
#include "explorer/ledger.h"
#include "explorer/scheduler.h"
#include "hash/hcore.h"
#include "platform/log_sink.h"
#include "platform/test_hooks.h"

namespace KavoExplorer {

void Silence() {
  static const bool done = [] {
    static KavoLogSink sink{};
    sink.enabled = [](void*, unsigned, int) { return 0; };
    sink.write = [](void*, unsigned, int, const char*, va_list) {};
    Qen::SetLogSink(&sink);
    Qen::TestHooks::SetWaitLimit(1);  // of calls outside the scheduler: nobody is there to wait for
    return true;
  }();
  static_cast<void>(done);
}

class TableRun final : public ScenarioRun {
 public:
  explicit TableRun(unsigned long long cells);
  ~TableRun() override;
  TableRun(const TableRun&) = delete;
  TableRun& operator=(const TableRun&) = delete;

  std::string Check() override;
  std::string NameOf(const void* where) const override { return table.NameOf(where); }

  ExploredTable table;
  Ledger ledger;
  bool failsMove[MAX_THREADS] = {};  // the thread's next move of a bucket ends with an exception
};

TableRun::TableRun(unsigned long long cells) : table(cells) {
  Silence();
  WatchTestPoints([this](unsigned thread, const char* point) {
    if (failsMove[thread] && point == std::string_view("Mover.Copied")) {
      failsMove[thread] = false;
      throw std::runtime_error("a lock reports an error");
    }
  });
}

TableRun::~TableRun() {
  WatchTestPoints();
}

std::string TableRun::Check() {
  if (ledger.Failure().empty()) {
    if (std::string leftovers = table.Leftovers(); !leftovers.empty()) {
      return leftovers;
    }
    ledger.CheckAtRest([this](long key) { return table.BlockOf(key); }, table.WalkedKeys());
  }
  return ledger.Failure();
}

Call Offer(long key) {
  return [key](TableRun& run) {
    const KavoTest::Offered offered = run.table.Offer(key);
    run.ledger.Offered(key, offered.status, offered.block);
  };
}

Call OfferFailing(long key) {
  return [key](TableRun& run) {
    if (run.table.OfferFailing(key) == Qen::ENTRY_INSERTED) {
      run.ledger.Fail(key, "an insert without a block succeeded");
    }
  };
}

Call OfferWithout(long key, unsigned long long nth) {
  return [key, nth](TableRun& run) {
    Qen::TestHooks::FailAllocation(nth, true);
    const KavoTest::Offered offered = run.table.Offer(key);
    Qen::TestHooks::FailAllocation(0);
    if (offered.status >= 0) {
      run.ledger.Offered(key, offered.status, offered.block);
    }
  };
}

Call Claim(long key) {
  return [key](TableRun& run) {
    if (const KavoTest::Core::Entry entry = run.table.Claim(key); entry.record != nullptr) {
      run.ledger.Offered(key, Qen::ENTRY_INSERTED, entry.block);
    }
  };
}

Call Walk() {
  return [](TableRun& run) {
    const std::set<long> before = run.ledger.CompletedKeys();
    run.ledger.Walked(before, run.table.WalkedKeys());
  };
}

Call Look(long key) {
  return [key](TableRun& run) {
    const void* const before = run.ledger.Completed(key);
    run.ledger.LookedUp(key, before, run.table.BlockOf(key));
  };
}

Call Fill(std::vector<long> keys) {
  return [keys](TableRun& run) {
    for (const long key : keys) {
      run.ledger.Offered(key, Qen::ENTRY_INSERTED, run.table.Store(key));
    }
  };
}

Call FillGeneration(unsigned generation, long key) {
  return [=](TableRun& run) {
    for (long next = key; !run.table.Generation(generation)->IsOverMapThreshold(); ++next) {
      const KavoTest::Core::Entry entry = run.table.Claim(next);
      run.ledger.Offered(next, Qen::ENTRY_INSERTED, entry.record != nullptr ? entry.block : nullptr);
    }
  };
}

Call Grow() {
  return [](TableRun& run) { static_cast<void>(run.table.Grow()); };
}

Call MoveGeneration(unsigned generation) {
  return [generation](TableRun& run) { static_cast<void>(run.table.MoveGeneration(run.table.Generation(generation))); };
}

Call MoveBucket(unsigned generation, unsigned long long bucket) {
  return [=](TableRun& run) {
    KavoTest::Core* const core = run.table.Generation(generation);
    static_cast<void>(run.table.BuildNext(core));
    static_cast<void>(run.table.MoveBucket(core, bucket, core->Next()));
  };
}

Call WithFailingMove(unsigned thread, Call call) {
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

Call MoveBucketOverMiddle(unsigned long long bucket) {
  return [=](TableRun& run) {
    static_cast<void>(run.table.MoveBucket(run.table.Generation(0), bucket, run.table.Generation(2)));
  };
}

Call BuildGenerations(unsigned count) {
  return [count](TableRun& run) {
    for (unsigned built = 1; built < count; ++built) {
      static_cast<void>(run.table.BuildNext(run.table.Generation(built - 1)));
    }
  };
}

Call GradualGrowth() {
  return [](TableRun& run) { run.table.SetRehashType(Qen::REHASH_GRADUAL); };
}

Call InOrder(std::vector<Call> calls) {
  return [calls](TableRun& run) {
    for (const Call& call : calls) {
      call(run);
    }
  };
}

void ExpectHolds(const Call& before, const std::vector<Call>& threads, unsigned long long cells) {
  ExpectHolds([&] {
    auto run = std::make_unique<TableRun>(cells);
    before(*run);
    for (const Call& call : threads) {
      run->threads.emplace_back([&call, &table = *run] { call(table); });
    }
    return run;
  });
}

}  // namespace KavoExplorer
