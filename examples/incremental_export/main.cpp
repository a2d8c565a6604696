// Saves a live model as a full snapshot and increments, restores it onto 1, 2 and 3 shards, and proves them equal.
//
//   incremental_export                      200,000 rows, of an embedding and of a table of the base
//   incremental_export --directory DIR      keeps the snapshots there, for kavo-snapshot
//
// Then the three shards take over: they train on and save an increment of three parts, and what is restored from it
// onto two equals the live model, which trained on as well. Exits with 1 when anything differs, or a call fails.
//
// Reading order for the library's sake: main (saving and loading), model (training, in one piece and in shards),
// compare.
#include <filesystem>
#include <string>

#include "folder.h"
#include "incremental_export/compare.h"
#include "program.h"
#include "pseudo_random.h"

namespace IncrementalExport {
namespace {

using Examples::Check;
using Examples::Count;

struct Arguments {
  std::uint64_t rows = 200'000;
  unsigned dim = 16;
  unsigned rounds = 3;
  std::uint64_t seed = 1;
  unsigned compress = 0;
  std::string directory;
};

void Declare(CLI::App& app, Arguments& arguments) {
  app.add_option("--rows", arguments.rows, "Rows that the model begins with")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 31));
  app.add_option("--dim", arguments.dim, "Floats of a row")->check(CLI::Range(1U, 65536U));
  app.add_option("--rounds", arguments.rounds, "Increments")->check(CLI::Range(0U, 1000U));
  app.add_option("--seed", arguments.seed, "Seed of keys and gradients");
  app.add_option("--compress", arguments.compress, "Level of compression; 0: none")->check(CLI::Range(0U, 19U));
  app.add_option("--directory", arguments.directory, "Keep the snapshots in this directory; none: they are removed")
      ->check(CLI::ExistingDirectory);
}

// The phases, in their order.
class Demonstration {
 public:
  explicit Demonstration(const Arguments& arguments)
      : m_arguments(arguments), m_folder(arguments.directory), m_live(NewShards(1)) {}

  void Run() {
    Examples::Rule();
    fmt::print("{:<36}{:>10}{:>14}{:>10}{:>10}\n", "phase", "rows", "bytes", "seconds", "MB/s");
    Examples::Rule();
    TrainRound("train", 0, m_live);
    Save("save, full", KAVO_SNAPSHOT_FULL, m_live);
    for (unsigned round = 1; round <= m_arguments.rounds; ++round) {
      TrainRound(fmt::format("train, round {}", round), round, m_live);
      Save(fmt::format("save, increment {}", round), KAVO_SNAPSHOT_INCREMENT, m_live);
    }
    RestoreAndCompare(1);
    RestoreAndCompare(2);
    const Shards shards = RestoreAndCompare(3);
    TrainRound("train on, live", m_arguments.rounds + 1, m_live);
    TrainRound("train on, 3 shards", m_arguments.rounds + 1, shards);
    Save("save, increment of 3 parts", KAVO_SNAPSHOT_INCREMENT, shards);
    RestoreAndCompare(2);
    Examples::Rule();
    fmt::print("verdict: {}\n", m_differences == 0 ? "all equal" : "THEY DIFFER");
    if (m_differences != 0) {
      throw std::runtime_error(fmt::format("{} differences", Count(m_differences)));
    }
  }

 private:
  Shards NewShards(unsigned num) {
    Shards shards;
    for (unsigned shard = 0; shard < num; ++shard) {
      shards.emplace_back(++m_lastTable, m_arguments.dim, m_arguments.rows);
    }
    return shards;
  }

  // Round 0 makes the rows to begin with, later ones train a tenth of all there are and make a twentieth as many.
  void TrainRound(const std::string& name, unsigned round, const Shards& shards) {
    constexpr std::size_t BATCH = 4096;
    const std::uint64_t perRound = m_arguments.rows / 20;
    const std::uint64_t known = round == 0 ? 0 : m_arguments.rows + (round - 1) * perRound;
    const std::uint64_t end = m_arguments.rows + round * perRound;
    std::uint64_t rows = 0;
    std::vector<long> keys;
    const auto start = std::chrono::steady_clock::now();
    for (std::uint64_t number = 0; number < end; ++number) {
      const std::uint64_t salt = PseudoRandom::Mix(number ^ PseudoRandom::Mix(round));
      if (number >= known || salt % 10 == 0) {
        // Any 64 bits will do: half of the keys are negative.
        keys.push_back(static_cast<long>(PseudoRandom::Mix(number + PseudoRandom::Mix(m_arguments.seed))));
      }
      if (keys.size() == BATCH || number + 1 == end) {
        Train(shards, keys, salt);
        rows += keys.size();
        keys.clear();
      }
    }
    Print(name, rows, 0, start);
  }

  // A part for each shard. Here one process writes all of them; processes of their own join the save first
  // (KavoSnapshotJoin), and for one part there is one call (KavoSnapshotSave).
  void Save(const std::string& name, unsigned kind, const Shards& shards) {
    const auto parts = static_cast<unsigned>(shards.size());
    const KavoSaveOptions options{sizeof(options), kind, parts, 2, m_arguments.compress};
    const auto start = std::chrono::steady_clock::now();
    KavoSave* save = nullptr;
    Check(KavoSnapshotBegin(m_folder.Path(), &options, &save));
    for (unsigned part = 0; part < parts; ++part) {
      const auto items = shards[part].Items();
      const int status = KavoSnapshotPart(save, part, items.data(), items.size(), nullptr, nullptr);
      if (status != KAVO_SUCCESS) {
        KavoSnapshotAbort(save);
        Check(status);
      }
    }
    Check(KavoSnapshotCommit(save, nullptr, 0));
    Print(name, 0, Examples::NewestIn(m_folder.Path()).bytes, start);
  }

  Shards RestoreAndCompare(unsigned num) {
    auto start = std::chrono::steady_clock::now();
    Shards shards = NewShards(num);
    std::uint64_t rows = 0;
    for (unsigned shard = 0; shard < num; ++shard) {
      const auto items = shards[shard].Items();
      Check(KavoSnapshotLoad(m_folder.Path(), 0, items.data(), items.size(), shard, num, nullptr, nullptr));
      rows += Examples::StatsOf(shards[shard].Rows()).rows;
    }
    Print(fmt::format("restore onto {}", num), rows, 0, start);
    start = std::chrono::steady_clock::now();
    const Comparison comparison = Compare(m_live.front(), shards);
    Print(fmt::format("compare: {} differences", Count(comparison.differences)), comparison.rows, 0, start);
    m_differences += comparison.differences;
    return shards;
  }

  // Zero: not known, or none of the phase's business.
  static void Print(const std::string& name, std::uint64_t rows, std::uint64_t bytes,
                    std::chrono::steady_clock::time_point start) {
    const double seconds = Examples::SecondsSince(start);
    const auto number = [](std::uint64_t value) { return value == 0 ? std::string() : Count(value); };
    fmt::print("{:<36}{:>10}{:>14}{:>10.3f}{:>10}\n", name, number(rows), number(bytes), seconds,
               bytes == 0 ? "" : fmt::format("{:.1f}", static_cast<double>(bytes) / 1e6 / seconds));
  }

  const Arguments& m_arguments;
  const Examples::Folder m_folder;
  unsigned m_lastTable = 0;
  const Shards m_live;  // one, with all keys
  std::uint64_t m_differences = 0;
};

void Run(const Arguments& arguments) {
  Demonstration(arguments).Run();
}

}  // namespace
}  // namespace IncrementalExport

int main(int argc, char** argv) {
  CLI::App app("Saves a model as snapshots, restores it onto several shards, and compares.", "incremental_export");
  return Examples::Main<IncrementalExport::Arguments>(app, argc, argv, IncrementalExport::Declare,
                                                      IncrementalExport::Run);
}
