// What single steps cost by themselves: one thread, and tables so small that everything lies in the processor's caches.
//
//   step_benchmarks [--benchmark_filter=REGEX] and the other options of Google Benchmark
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <kavo.h>
#include <unistd.h>

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

void Insert(unsigned id, long key) {
  Value value = ValueOf(key);
  Check(KavoInsert(id, key, reinterpret_cast<unsigned char*>(&value), VALUE_BYTES, 0, 0) == KAVO_SUCCESS, "KavoInsert");
}

// A table with the first keys of KeyAt.
class Table {
 public:
  explicit Table(unsigned id, std::uint64_t size = ENTRIES, std::uint64_t entries = ENTRIES) : m_id(id) {
    DropLogLines();
    Check(KavoInitHashTable(id, static_cast<unsigned>(size), VALUE_BYTES, KAVO_TABLE_TYPE_BASIC) == KAVO_SUCCESS,
          "KavoInitHashTable");
    for (std::uint64_t i = 0; i < entries; ++i) {
      Insert(id, KeyAt(i));
    }
  }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  ~Table() { KavoUninitHashTable(m_id); }

 private:
  unsigned m_id;
};

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
  const Table table(SMALL_ID);
  LookUp(state, SMALL_ID, Keys(0), KAVO_SUCCESS);
}
BENCHMARK(HitSmallId);

void HitLargeId(benchmark::State& state) {
  const Table table(LARGE_ID);
  LookUp(state, LARGE_ID, Keys(0), KAVO_SUCCESS);
}
BENCHMARK(HitLargeId);

void MissLinesDroppedBySink(benchmark::State& state) {
  const Table table(SMALL_ID);
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
  const Table table(SMALL_ID);
  const DefaultWriterToNowhere writer;
  LookUp(state, SMALL_ID, Keys(ENTRIES), KAVO_INVALID);
}
BENCHMARK(MissLinesHeldBack);

// A refused argument writes one line and does nothing else.
void OneLineHeldBack(benchmark::State& state) {
  const Table table(SMALL_ID);
  const DefaultWriterToNowhere writer;
  LookUp(state, SMALL_ID, std::vector<long>(BATCH, -1), KAVO_INVALID);
}
BENCHMARK(OneLineHeldBack);

void FindOrInsertPresentKey(benchmark::State& state) {
  const Table table(SMALL_ID);
  const std::vector<long> keys = Keys(0);
  std::size_t i = 0;
  for (auto _ : state) {
    unsigned char* value = nullptr;
    unsigned length = 0;
    unsigned isFind = 0;
    Check(KavoLookupOrInsert(SMALL_ID, keys[i++ % BATCH], &value, &length, &isFind, 0) == KAVO_SUCCESS && isFind == 1,
          "KavoLookupOrInsert");
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(FindOrInsertPresentKey);

void UpdatePresentKey(benchmark::State& state) {
  const Table table(SMALL_ID);
  const std::vector<long> keys = Keys(0);
  Value value = ValueOf(keys[0]);
  std::size_t i = 0;
  for (auto _ : state) {
    Check(
        KavoUpdate(SMALL_ID, keys[i++ % BATCH], reinterpret_cast<unsigned char*>(&value), VALUE_BYTES) == KAVO_SUCCESS,
        "KavoUpdate");
  }
}
BENCHMARK(UpdatePresentKey);

// New keys into a table made for them; its pages come from the system on the way. The mode is how a table grows that
// was made for 8 entries; 0 stands for one that need not grow.
constexpr std::int64_t INSERTS = 200'000;
void InsertNewKeys(benchmark::State& state) {
  const auto mode = static_cast<unsigned>(state.range(0));
  const Table table(SMALL_ID, mode == 0 ? INSERTS : 8, 0);
  if (mode != 0) {
    Check(KavoSetRehashMode(SMALL_ID, mode) == KAVO_SUCCESS, "KavoSetRehashMode");
  }
  std::uint64_t i = 0;
  for (auto _ : state) {
    Insert(SMALL_ID, KeyAt(i++));
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
  const Table table(SMALL_ID);
  std::array<unsigned char*, BATCH> values{};
  for (auto _ : state) {
    unsigned long long found = 0;
    Check(KavoBatchLookup(SMALL_ID, keys.data(), BATCH, values.data(), &found) == KAVO_SUCCESS && found == expected,
          "KavoBatchLookup");
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

void BatchFindOrInsertPresentKeys(benchmark::State& state) {
  const Table table(SMALL_ID);
  const std::vector<long> keys = Keys(0);
  std::array<unsigned char*, BATCH> values{};
  std::array<unsigned, BATCH> isFind{};
  for (auto _ : state) {
    unsigned long long done = 0;
    Check(
        KavoBatchLookupOrInsert(SMALL_ID, keys.data(), BATCH, values.data(), isFind.data(), 0, &done) == KAVO_SUCCESS &&
            done == BATCH,
        "KavoBatchLookupOrInsert");
    benchmark::ClobberMemory();
  }
  CountKeys(state);
}
BENCHMARK(BatchFindOrInsertPresentKeys);

void BatchGather(benchmark::State& state) {
  const Table table(SMALL_ID);
  const std::vector<long> keys = Keys(0);
  std::vector<Value> rows(BATCH);
  for (auto _ : state) {
    Check(KavoBatchGather(SMALL_ID, keys.data(), BATCH, reinterpret_cast<unsigned char*>(rows.data()), VALUE_BYTES,
                          nullptr) == KAVO_SUCCESS,
          "KavoBatchGather");
    benchmark::ClobberMemory();
  }
  CountKeys(state);
}
BENCHMARK(BatchGather);

// A whole export of the table, in batches of 1,024.
void ExportOfTable(benchmark::State& state) {
  const Table table(SMALL_ID);
  std::vector<KavoHtBatchElement> elements(1024);
  for (auto _ : state) {
    KavoHtBatchInfo batch = {elements.data(), 1024, KAVO_EXPORT_ALL, 0};
    void* iter = nullptr;
    do {
      unsigned num = 0;
      Check(KavoBatchGetNext(SMALL_ID, &batch, &num, &iter) == KAVO_SUCCESS, "KavoBatchGetNext");
    } while (iter != nullptr);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(ENTRIES));
}
BENCHMARK(ExportOfTable);

}  // namespace

BENCHMARK_MAIN();
