// What single steps cost by themselves: one thread, and tables so small that everything lies in the processor's caches.
//
//   step_benchmarks [--benchmark_filter=REGEX] and the other options of Google Benchmark
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#include <kavo.hpp>

#include <array>
#include <cstdint>
#include <vector>

#include "check.h"
#include "keys.h"
#include "log_lines.h"
#include "value.h"

namespace {

using namespace Bench;

constexpr unsigned SMALL_ID = 7;     // found with one array access
constexpr unsigned LARGE_ID = 4711;  // behind a shared lock and a hash lookup
constexpr std::uint64_t ENTRIES = 4096;
constexpr std::uint64_t BATCH = BATCH_KEYS;

void Insert(const kavo::Table& table, long key) {
  table.Insert(key, ValueOf(key).numbers, 0, kavo::NewState::FULL_ONLY);
}

// A table with the first keys of KeyAt.
kavo::Table MakeTable(unsigned id = SMALL_ID) {
  DropLogLines();
  kavo::Table table(id, ENTRIES, VALUE_BYTES);
  for (std::uint64_t i = 0; i < ENTRIES; ++i) {
    Insert(table, KeyAt(i));
  }
  return table;
}

// The keys from the n-th on.
std::vector<long> Keys(std::uint64_t first, std::uint64_t num = BATCH) {
  std::vector<long> keys;
  for (std::uint64_t i = first; i < first + num; ++i) {
    keys.push_back(KeyAt(i));
  }
  return keys;
}

// Takes its keys in turn.
void LookUp(benchmark::State& state, unsigned id, const std::vector<long>& keys, int expected) {
  std::size_t i = 0;
  for (auto _ : state) {
    unsigned char* value = nullptr;
    unsigned length = 0;
    const int status = KavoLookup(id, keys[i++ % BATCH], &value, &length);
    Check(status == expected, "KavoLookup");
    benchmark::DoNotOptimize(value);
  }
}

void HitSmallId(benchmark::State& state) {
  const kavo::Table table = MakeTable();
  LookUp(state, SMALL_ID, Keys(0), KAVO_SUCCESS);
}
BENCHMARK(HitSmallId);

void HitLargeId(benchmark::State& state) {
  const kavo::Table table = MakeTable(LARGE_ID);
  LookUp(state, LARGE_ID, Keys(0), KAVO_SUCCESS);
}
BENCHMARK(HitLargeId);

void MissLinesDroppedBySink(benchmark::State& state) {
  const kavo::Table table = MakeTable();
  LookUp(state, SMALL_ID, Keys(ENTRIES), KAVO_INVALID);
}
BENCHMARK(MissLinesDroppedBySink);

// Lines to the default writer go nowhere for the length of a scope.
class DefaultWriterToNowhere {
 public:
  DefaultWriterToNowhere() : m_stderr(::dup(STDERR_FILENO)) {
    const int nowhere = ::open("/dev/null", O_WRONLY);
    ::dup2(nowhere, STDERR_FILENO);
    ::close(nowhere);
    KavoSetLogSink(nullptr);
  }
  DefaultWriterToNowhere(const DefaultWriterToNowhere&) = delete;
  DefaultWriterToNowhere& operator=(const DefaultWriterToNowhere&) = delete;
  ~DefaultWriterToNowhere() {
    DropLogLines();
    ::dup2(m_stderr, STDERR_FILENO);
    ::close(m_stderr);
  }

 private:
  int m_stderr;
};

// Nearly all lines are beyond the writer's bound.
void MissLinesHeldBack(benchmark::State& state) {
  const kavo::Table table = MakeTable();
  const DefaultWriterToNowhere writer;
  LookUp(state, SMALL_ID, Keys(ENTRIES), KAVO_INVALID);
}
BENCHMARK(MissLinesHeldBack);

// A refused argument writes one line and does nothing else.
void OneLineHeldBack(benchmark::State& state) {
  const kavo::Table table = MakeTable();
  const DefaultWriterToNowhere writer;
  LookUp(state, SMALL_ID, std::vector<long>(BATCH, -1), KAVO_INVALID);
}
BENCHMARK(OneLineHeldBack);

void FindOrInsertPresentKey(benchmark::State& state) {
  const kavo::Table table = MakeTable();
  const std::vector<long> keys = Keys(0);
  std::size_t i = 0;
  for (auto _ : state) {
    const auto found = table.LookupOrInsert(keys[i++ % BATCH], 0);
    Check(!found.created, "the key is found");
    benchmark::DoNotOptimize(found.row.data());
  }
}
BENCHMARK(FindOrInsertPresentKey);

void UpdatePresentKey(benchmark::State& state) {
  const kavo::Table table = MakeTable();
  const std::vector<long> keys = Keys(0);
  const Value value = ValueOf(keys[0]);
  std::size_t i = 0;
  for (auto _ : state) {
    table.Update(keys[i++ % BATCH], value.numbers);
  }
}
BENCHMARK(UpdatePresentKey);

// New keys into a table made for them; its pages come from the system on the way. The mode is how a table grows that
// was made for 8 entries; 0 stands for one that need not grow.
constexpr std::int64_t INSERTS = 200'000;
void InsertNewKeys(benchmark::State& state) {
  const auto mode = static_cast<unsigned>(state.range(0));
  DropLogLines();
  const kavo::Table table(SMALL_ID, mode == 0 ? INSERTS : 8, VALUE_BYTES);
  if (mode != 0) {
    table.SetRehashMode(kavo::RehashMode{mode});
  }
  std::uint64_t i = 0;
  for (auto _ : state) {
    Insert(table, KeyAt(i++));
  }
}
BENCHMARK(InsertNewKeys)
    ->ArgName("mode")
    ->Arg(0)
    ->Arg(KAVO_REHASH_GRADUAL)
    ->Arg(KAVO_REHASH_WHOLE_TABLE)
    ->Iterations(INSERTS);

// Times of a batch are for all of its 256 keys; the counter is for one.
void CountKeys(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(BATCH));
}

void LookUpBatch(benchmark::State& state, const std::vector<long>& keys, std::uint64_t expected) {
  const kavo::Table table = MakeTable();
  std::array<unsigned char*, BATCH> values{};
  for (auto _ : state) {
    Check(table.BatchLookup(keys, values) == expected, "as many keys as expected are found");
    benchmark::ClobberMemory();
  }
  CountKeys(state);
}

void BatchOfHits(benchmark::State& state) {
  LookUpBatch(state, Keys(0), BATCH);
}
BENCHMARK(BatchOfHits);

void BatchOfMisses(benchmark::State& state) {
  LookUpBatch(state, Keys(ENTRIES), 0);
}
BENCHMARK(BatchOfMisses);

// In a filter table each key is offered once more, and counted.
void BatchFindOrInsertPresentKeys(benchmark::State& state) {
  DropLogLines();
  const kavo::Table table(SMALL_ID, ENTRIES, VALUE_BYTES, kavo::TableType{static_cast<unsigned>(state.range(0))});
  const std::vector<long> keys = Keys(0);
  for (const long key : keys) {
    table.LookupOrInsert(key, 0);
  }
  std::array<unsigned char*, BATCH> values{};
  std::array<unsigned, BATCH> isFind{};
  for (auto _ : state) {
    table.BatchLookupOrInsert(keys, values, isFind, 1);
    benchmark::ClobberMemory();
  }
  CountKeys(state);
}
BENCHMARK(BatchFindOrInsertPresentKeys)->ArgName("type")->Arg(KAVO_TABLE_TYPE_BASIC)->Arg(KAVO_TABLE_TYPE_FILTER);

void BatchGather(benchmark::State& state) {
  const kavo::Table table = MakeTable();
  const std::vector<long> keys = Keys(0);
  std::vector<Value> rows(BATCH);
  for (auto _ : state) {
    table.BatchGather(keys, rows);
    benchmark::ClobberMemory();
  }
  CountKeys(state);
}
BENCHMARK(BatchGather);

// A whole export of the table, in batches of 1,024.
void ExportOfTable(benchmark::State& state) {
  const kavo::Table table = MakeTable();
  for (auto _ : state) {
    for (const KavoHtBatchElement& entry : table.Export(kavo::ExportMode::ALL, 1024)) {
      benchmark::DoNotOptimize(entry.value);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(ENTRIES));
}
BENCHMARK(ExportOfTable);

}  // namespace

BENCHMARK_MAIN();
