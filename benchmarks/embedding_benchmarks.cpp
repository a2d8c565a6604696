// Embeddings beside what their memory and the base allow: threads of a call, lookups beside KavoBatchGather, rows read
// whole beside plain copies, snapshots beside the disk, bytes a row. Writes JSON, a list of rows: what was measured,
// samples of Kavo's, samples of what it stands beside. (PyTorch: embedding_beside_torch.py.)
#include <fcntl.h>
#include <kavo_embedding.h>
#include <unistd.h>

#include <fmt/core.h>
#include <CLI/CLI.hpp>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <kavo.hpp>
#include <nlohmann/json.hpp>
#include <numeric>
#include <random>

#include "check.h"
#include "log_lines.h"
#include "parallel.h"

namespace {

using namespace Bench;
using Json = nlohmann::ordered_json;

constexpr unsigned PLAIN_TABLE = 1;
constexpr std::size_t BAGS = 4096;
constexpr std::size_t BAG_KEYS = 26;

struct Options {
  std::uint64_t rows = 10'000'000;
  unsigned threads = 2;
  unsigned rounds = 5;
  std::string folder = std::filesystem::temp_directory_path();
};

void Must(int status) {
  Check(status == KAVO_SUCCESS, KavoEmbeddingLastError());
}

class Embedding {
 public:
  Embedding(unsigned dim, unsigned optimiser, std::uint64_t rows, unsigned threads) : m_dim(dim) {
    KavoEmbeddingOptions options{};
    Must(KavoEmbeddingDefaults(&options, sizeof(options), dim, optimiser));
    options.expected = rows;
    options.threads = threads;
    Must(KavoEmbeddingCreate(&options, &m_handle));
  }
  Embedding(const Embedding&) = delete;
  Embedding& operator=(const Embedding&) = delete;
  ~Embedding() { KavoEmbeddingDestroy(m_handle); }

  // Keys 0 ... rows - 1.
  void Fill(std::uint64_t rows) {
    std::vector<long> keys(std::min<std::uint64_t>(rows, 1U << 20U));
    std::vector<float> out(keys.size() * m_dim);
    for (std::uint64_t first = 0; first < rows; first += keys.size()) {
      keys.resize(std::min<std::uint64_t>(keys.size(), rows - first));
      std::iota(keys.begin(), keys.end(), static_cast<long>(first));
      Must(KavoEmbeddingForward(m_handle, keys.data(), keys.size(), nullptr, out.data(), nullptr));
    }
  }
  KavoEmbedding* Get() const { return m_handle; }
  unsigned TableId() const { return m_tableId; }
  KavoEmbeddingStats Stats() const {
    KavoEmbeddingStats stats{};
    stats.size = sizeof(stats);
    Must(KavoEmbeddingGetStats(m_handle, &stats));
    return stats;
  }

 private:
  static inline unsigned s_nextTable = 0xFFFFFFFF;  // ids are taken from there downwards

  unsigned m_dim;
  unsigned m_tableId = s_nextTable--;
  KavoEmbedding* m_handle = nullptr;
};

// Heavy-tailed: the r-th most frequent comes up in proportion to 1 / r. Frequent ones are scattered.
std::vector<long> Draw(std::uint64_t rows, std::size_t num, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::uniform_real_distribution<double> uniform;
  std::vector<long> keys(num);
  for (long& key : keys) {
    const auto rank = static_cast<std::uint64_t>(std::pow(static_cast<double>(rows), uniform(random))) - 1;
    key = static_cast<long>(rank * 7'368'787 % rows);
  }
  return keys;
}

// Nanoseconds a key of work(keys), whose threads each take a part of the batch in requests of some keys.
double KeyTime(unsigned threads, const std::vector<long>& keys, std::size_t request,
               const std::function<void(const long*, std::size_t)>& work) {
  const Measured measured = Parallel(threads, keys.size(), [&](std::uint64_t begin, std::uint64_t end) {
    for (; begin < end; begin += request) {
      work(&keys[begin], std::min<std::uint64_t>(request, end - begin));
    }
    return Tally{};
  });
  return measured.seconds * 1e9 / static_cast<double>(keys.size());
}

void Add(Json& results, const std::string& title, const std::string& unit, const std::string& beside,
         const std::vector<double>& kavo, const std::vector<double>& other) {
  results.push_back({{"title", title}, {"unit", unit}, {"beside", beside}, {"kavo", kavo}, {"other", other}});
}

// One call's threads: a step of forward and backward over bags, by one thread and by several.
void MeasureStep(const Options& options, unsigned optimiser, const std::string& name, Json& results) {
  std::vector<unsigned long long> offsets(BAGS + 1);
  for (std::size_t bag = 0; bag <= BAGS; ++bag) {
    offsets[bag] = bag * BAG_KEYS;
  }
  const KavoBags bags{sizeof(bags), BAGS, offsets.data(), nullptr, KAVO_POOL_SUM, 0, 0};
  const std::vector<float> gradients(BAGS * 16, 0.01F);
  std::vector<float> pooled(gradients.size());
  Embedding one(16, optimiser, options.rows, 1);
  Embedding several(16, optimiser, options.rows, options.threads);
  one.Fill(options.rows);
  several.Fill(options.rows);
  std::vector<double> times[2];
  for (unsigned round = 0; round < 8 * options.rounds; ++round) {
    const std::vector<long> keys = Draw(options.rows, BAGS * BAG_KEYS, round);
    for (const bool alone : {true, false}) {
      KavoEmbedding* const embedding = alone ? one.Get() : several.Get();
      const auto begin = Clock::now();
      Must(KavoEmbeddingForwardBags(embedding, keys.data(), keys.size(), &bags, pooled.data(), nullptr));
      Must(
          KavoEmbeddingBackwardBags(embedding, keys.data(), keys.size(), &bags, gradients.data(), 1, nullptr, nullptr));
      times[alone ? 1 : 0].push_back(Seconds(Clock::now() - begin) * 1e9 / static_cast<double>(keys.size()));
    }
  }
  Add(results, fmt::format("step, {}, {} threads in one call", name, options.threads), "ns a key", "one thread",
      times[0], times[1]);
}

// Copies rows out of the embedding's table by the base's calls, whoever may be writing them.
void CopyPlainly(unsigned tableId, const long* keys, std::size_t num, std::size_t dim, float* rows) {
  constexpr std::size_t BLOCK = 512;
  constexpr std::size_t AHEAD = 24;
  constexpr std::size_t HEAD_BYTES = 8;
  for (std::size_t first = 0; first < num; first += BLOCK) {
    const std::size_t count = std::min(BLOCK, num - first);
    long mixed[BLOCK];
    unsigned char* values[BLOCK];
    unsigned long long found = 0;
    std::transform(keys + first, keys + first + count, mixed, kavo::MixKey);
    Must(KavoBatchLookup(tableId, mixed, count, values, &found));
    const std::size_t bytes = std::min<std::size_t>(HEAD_BYTES + dim * sizeof(float), 512);
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t at = 0; i + AHEAD < count && at < bytes; at += 64) {
        __builtin_prefetch(values[i + AHEAD] + at, 0, 1);
      }
      std::memcpy(rows + (first + i) * dim, values[i] + HEAD_BYTES, dim * sizeof(float));
    }
  }
}

// The calling thread's own.
float* Room(std::size_t floats) {
  thread_local std::vector<float> room;
  room.resize(floats);
  return room.data();
}

// Lookups beside KavoBatchGather from a table of the same floats, and beside plain copies of the same rows.
void MeasureLookups(const Options& options, unsigned dim, Json& results) {
  const std::uint64_t rows = options.rows * 16 / dim;
  Embedding embedding(dim, KAVO_OPTIMISER_SGD, rows, 1);
  embedding.Fill(rows);
  const unsigned bytes = dim * static_cast<unsigned>(sizeof(float));
  const kavo::Table plain(PLAIN_TABLE, static_cast<unsigned>(rows), bytes);
  const std::vector<unsigned char> value(bytes);
  for (std::uint64_t key = 0; key < rows; ++key) {
    unsigned long long done = 0;
    const long mixed = kavo::MixKey(static_cast<long>(key));
    Must(KavoBatchInsertOrUpdate(PLAIN_TABLE, &mixed, 1, value.data(), bytes, 0, &done));
  }
  constexpr std::size_t REQUEST = 1024;
  for (const unsigned threads : {1U, options.threads}) {
    std::vector<double> whole;
    std::vector<double> gathered;
    std::vector<double> copied;
    for (unsigned round = 0; round < 6 * options.rounds; ++round) {
      const std::vector<long> keys = Draw(rows, 400 * REQUEST, round);
      std::vector<long> mixed(keys.size());
      std::transform(keys.begin(), keys.end(), mixed.begin(), kavo::MixKey);
      const auto lookup = [&](const long* part, std::size_t num) {
        Must(KavoEmbeddingLookup(embedding.Get(), part, num, KAVO_ABSENT_ZEROS, nullptr, Room(REQUEST * dim), nullptr));
      };
      const auto gather = [&](const long* part, std::size_t num) {
        auto* const out = reinterpret_cast<unsigned char*>(Room(REQUEST * dim));
        Must(KavoBatchGather(PLAIN_TABLE, part, num, out, bytes, nullptr));
      };
      const auto copy = [&](const long* part, std::size_t num) {
        CopyPlainly(embedding.TableId(), part, num, dim, Room(REQUEST * dim));
      };
      // Whoever comes second to the same rows finds them nearer: by turns.
      const auto measure = [&](unsigned which) {
        switch (which % 3) {
          case 0:
            return whole.push_back(KeyTime(threads, keys, REQUEST, lookup));
          case 1:
            return gathered.push_back(KeyTime(threads, mixed, REQUEST, gather));
          default:
            return copied.push_back(KeyTime(threads, keys, REQUEST, copy));
        }
      };
      const unsigned step = round % 2 == 0 ? 1 : 2;
      for (unsigned turn = 0; turn < 3; ++turn) {
        measure(round / 2 + turn * step);
      }
    }
    const std::string by = fmt::format("dim {}, {} thread{}", dim, threads, threads == 1 ? "" : "s");
    Add(results, "lookup, " + by, "ns a key", "KavoBatchGather of the floats", whole, gathered);
    Add(results, "rows read whole, " + by, "ns a key", "plain copies of them", whole, copied);
  }
}

// Writes as many bytes to a file and brings them to the disk; and reads them.
std::pair<double, double> DiskTimes(const std::string& folder, std::uint64_t bytes) {
  const std::string name = folder + "/bytes";
  std::vector<char> piece(4U << 20U, 'x');
  const auto begin = Clock::now();
  int file = ::open(name.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  for (std::uint64_t done = 0; done < bytes; done += piece.size()) {
    Check(::write(file, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size()), "the disk takes the bytes");
  }
  Check(::fsync(file) == 0 && ::close(file) == 0, "the bytes are on the disk");
  const auto middle = Clock::now();
  file = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  while (::read(file, piece.data(), piece.size()) > 0) {
  }
  ::close(file);
  const auto end = Clock::now();
  return {Seconds(middle - begin), Seconds(end - middle)};
}

void MeasureSnapshots(const Options& options, Json& results) {
  std::string folder = options.folder + "/kavo-benchmark-XXXXXX";
  Check(::mkdtemp(folder.data()) != nullptr, "a folder for the snapshots");
  std::vector<double> times[4];
  Embedding embedding(16, KAVO_OPTIMISER_ADAGRAD, options.rows, options.threads);
  embedding.Fill(options.rows);
  const auto bytesOf = [&] {
    KavoSnapshotInfo info{};
    info.size = sizeof(info);
    Must(KavoSnapshotFind(folder.c_str(), 0, &info));
    return info.bytes;
  };
  for (unsigned round = 0; round < options.rounds; ++round) {
    const KavoSaveOptions save{sizeof(save), KAVO_SNAPSHOT_FULL, 1, 1, 0};
    KavoSnapshotItem item{sizeof(item), "rows", embedding.Get(), 0};
    const auto begin = Clock::now();
    Must(KavoSnapshotSave(folder.c_str(), &save, &item, 1, nullptr, 0, nullptr, nullptr, nullptr));
    times[0].push_back(static_cast<double>(bytesOf()) / Seconds(Clock::now() - begin) / 1e9);
    Embedding loaded(16, KAVO_OPTIMISER_ADAGRAD, options.rows, options.threads);
    item.embedding = loaded.Get();
    const auto loading = Clock::now();
    Must(KavoSnapshotLoad(folder.c_str(), 0, &item, 1, 0, 1, nullptr, nullptr));
    times[2].push_back(static_cast<double>(bytesOf()) / Seconds(Clock::now() - loading) / 1e9);
    const auto [written, read] = DiskTimes(folder, bytesOf());
    times[1].push_back(static_cast<double>(bytesOf()) / written / 1e9);
    times[3].push_back(static_cast<double>(bytesOf()) / read / 1e9);
  }
  std::filesystem::remove_all(folder);
  Add(results, "save, Adagrad, dim 16", "GB/s", "the disk's rate of writing", times[0], times[1]);
  Add(results, "load, Adagrad, dim 16", "GB/s", "the rate of reading the bytes", times[2], times[3]);
}

void MeasureBytes(const Options& options, Json& results) {
  Embedding embedding(16, KAVO_OPTIMISER_ADAGRAD, options.rows, 1);
  embedding.Fill(options.rows);
  const KavoEmbeddingStats stats = embedding.Stats();
  const auto perRow = [&](const KavoTableStats& table) {
    return static_cast<double>(table.cellBytes + table.leftCellBytes + table.mapBytes + table.valueBytes) /
           static_cast<double>(options.rows);
  };
  const unsigned bytes = 32 * sizeof(float);
  const kavo::Table plain(PLAIN_TABLE, static_cast<unsigned>(options.rows), bytes);
  for (std::uint64_t key = 0; key < options.rows; ++key) {
    plain.LookupOrInsert<float>(kavo::MixKey(static_cast<long>(key)));
  }
  Add(results, "bytes a row, Adagrad, dim 16", "bytes", "a table of the floats alone", {perRow(stats.table)},
      {perRow(plain.Stats())});
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Measures embeddings beside what their memory and the base allow; writes JSON.");
  app.add_option("--rows", options.rows, "rows in the table")->check(CLI::Range(100'000UL, 1'000'000'000UL));
  app.add_option("--threads", options.threads, "threads where there are several")->check(CLI::Range(1U, 256U));
  app.add_option("--rounds", options.rounds, "rounds of each measurement")->check(CLI::Range(1U, 100U));
  app.add_option("--folder", options.folder, "where snapshots are written")->check(CLI::ExistingDirectory);
  CLI11_PARSE(app, argc, argv);
  DropLogLines();
  Json results = Json::array();
  MeasureLookups(options, 16, results);
  MeasureLookups(options, 64, results);
  MeasureStep(options, KAVO_OPTIMISER_SGD, "SGD", results);
  MeasureStep(options, KAVO_OPTIMISER_ADAM, "Adam", results);
  MeasureBytes(options, results);
  MeasureSnapshots(options, results);
  fmt::print("{}\n", results.dump());
  return 0;
}
