// Exports a live table to a full snapshot and increments, restores them into a second table, and proves the two equal.
//
//   incremental_export                      a basic table of 200,000 entries
//   incremental_export --type filter        a table that counts keys before it gives them a value
//   incremental_export --directory DIR      keeps the files there
//
// Reading order for the library's sake: table_export (how export modes make increments), table_restore (values before
// keys; counts and admission), table_scan (what tells an entry's state). For the file: snapshot_format,
// snapshot_writer, snapshot_reader, snapshot_chain.
#include <fmt/format.h>
#include <unistd.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <kavo.hpp>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "incremental_export/compare.h"
#include "incremental_export/report.h"
#include "incremental_export/snapshot_chain.h"
#include "incremental_export/stream.h"
#include "incremental_export/table_export.h"
#include "incremental_export/table_restore.h"

namespace IncrementalExport {
namespace {

constexpr unsigned LIVE_TABLE = 1;
constexpr unsigned RESTORED_TABLE = 2;

struct Arguments {
  kavo::TableType type = kavo::TableType::BASIC;
  StreamOptions stream;
  unsigned valueLen = 64;
  unsigned rounds = 3;
  std::string directory;
};

void Declare(CLI::App& app, Arguments& arguments) {
  const std::map<std::string, kavo::TableType> types{{"basic", kavo::TableType::BASIC},
                                                     {"filter", kavo::TableType::FILTER}};
  app.add_option("--type", arguments.type, "Kind of the table: basic or filter")
      ->transform(CLI::CheckedTransformer(types))
      ->default_str("basic");
  app.add_option("--entries", arguments.stream.entries, "Keys that the table begins with")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 31))
      ->capture_default_str();
  app.add_option("--value-len", arguments.valueLen, "Bytes of a value")
      ->check(CLI::Range(1U, 1U << 20))
      ->capture_default_str();
  app.add_option("--rounds", arguments.rounds, "Increments")->check(CLI::Range(0U, 1000U))->capture_default_str();
  app.add_option("--seed", arguments.stream.seed, "Seed of keys and values")->capture_default_str();
  app.add_option("--threads", arguments.stream.threads, "Threads of the phases that write")
      ->check(CLI::Range(1U, 1024U))
      ->capture_default_str();
  app.add_option("--directory", arguments.directory, "Keep the files in this directory; none: they are removed")
      ->check(CLI::ExistingDirectory);
}

// Where the files go: a given directory, or one of our own that goes when we do.
class FileDirectory {
 public:
  explicit FileDirectory(const std::string& given) : m_path(given), m_ours(given.empty()) {
    if (m_ours) {
      std::string pattern = (std::filesystem::temp_directory_path() / "kavo-export-XXXXXX").string();
      if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), pattern);
      }
      m_path = pattern;
    }
  }
  FileDirectory(const FileDirectory&) = delete;
  FileDirectory& operator=(const FileDirectory&) = delete;
  ~FileDirectory() {
    if (m_ours) {
      std::error_code ignored;
      std::filesystem::remove_all(m_path, ignored);
    }
  }
  // Of the file with this sequence number.
  std::string PathOf(unsigned sequence) const {
    const std::string name = sequence == 0 ? "full.kavosnap" : fmt::format("increment-{:04}.kavosnap", sequence);
    return (m_path / name).string();
  }

 private:
  std::filesystem::path m_path;
  const bool m_ours;
};

// The phases, in their order. The live table serves as a table in training would, with pauses in which it is exported.
class Demonstration {
 public:
  explicit Demonstration(const Arguments& arguments)
      : m_arguments(arguments), m_stream(arguments.stream), m_directory(arguments.directory) {}

  bool Run() {
    // Made for a quarter of what comes: tables grow while they are used, and exports do not care.
    const kavo::Table live(LIVE_TABLE, SizeFor(m_arguments.stream.entries / 4), m_arguments.valueLen, m_arguments.type);
    PrintHead();
    TableExport exports(live);
    Write("base", [&] { return m_stream.Base(live); });
    Export("full snapshot", 0, [&](const std::string& path) { return exports.WriteFull(path); });
    for (unsigned round = 1; round <= m_arguments.rounds; ++round) {
      Write(fmt::format("round {}", round), [&] { return m_stream.Round(live, round); });
      Export(fmt::format("increment {}", round), round,
             [&](const std::string& path) { return exports.WriteIncrement(path); });
    }

    SnapshotChain chain = OpenChain();
    const SnapshotHeader& full = chain.Files().front().Header();
    const kavo::Table restored(RESTORED_TABLE, SizeFor(full.Records()), chain.ValueLen(), chain.Type());
    const RestoreFacts facts = RestoreInto(restored, chain);
    const bool equal = CompareTables("compare", live, restored);

    // The restored table takes over: both go on, and the next increment comes from the restored one.
    const unsigned next = m_arguments.rounds + 1;
    Write("round on the live table", [&] { return m_stream.Round(live, next); });
    Write("round on the restored table", [&] { return m_stream.Round(restored, next); });
    const bool equalAfterRound = CompareTables("compare, before export", live, restored);
    Export(fmt::format("increment {}, restored table", next), next, [&](const std::string& path) {
      return TableExport(restored, chain.Files().back().Header()).WriteIncrement(path);
    });
    exports.WriteIncrement(m_directory.PathOf(next) + ".live");
    const bool equalAfterExport = CompareTables("compare, after export", live, restored);

    PrintRule();
    fmt::print("restored: {} adopted, {} inserted, {} written over, {} superseded by newer files\n",
               Grouped(facts.adopted), Grouped(facts.inserted), Grouped(facts.overwrote), Grouped(facts.superseded));
    for (const std::string& line : m_verdicts) {
      fmt::print("{}\n", line);
    }
    return equal && equalAfterRound && equalAfterExport;
  }

 private:
  static unsigned SizeFor(std::uint64_t entries) {
    return static_cast<unsigned>(std::clamp<std::uint64_t>(entries, 8, std::numeric_limits<unsigned>::max()));
  }

  template <typename Action>
  void Write(const std::string& name, Action action) {
    const Stopwatch watch;
    const StreamFacts facts = action();
    PrintPhase(name, facts.keys, facts.values * m_arguments.valueLen, watch.Seconds());
  }

  template <typename Action>
  void Export(const std::string& name, unsigned sequence, Action action) {
    const Stopwatch watch;
    const SnapshotHeader header = action(m_directory.PathOf(sequence));
    PrintPhase(name, header.Records(), header.FileBytes(), watch.Seconds());
  }

  SnapshotChain OpenChain() const {
    std::vector<std::string> paths;
    for (unsigned sequence = 0; sequence <= m_arguments.rounds; ++sequence) {
      paths.push_back(m_directory.PathOf(sequence));
    }
    const Stopwatch watch;
    SnapshotChain chain(paths);
    PrintPhase("verify all files", chain.Records(), chain.Bytes(), watch.Seconds());
    return chain;
  }

  static RestoreFacts RestoreInto(const kavo::Table& table, SnapshotChain& chain) {
    const Stopwatch watch;
    const RestoreFacts facts = Restore(table, chain);
    PrintPhase("restore", chain.Records(), chain.Bytes(), watch.Seconds());
    return facts;
  }

  bool CompareTables(const std::string& name, const kavo::Table& live, const kavo::Table& restored) {
    const Stopwatch watch;
    const Comparison result = Compare(live, restored);
    PrintPhase(name, result.entries, 2 * result.admitted * m_arguments.valueLen, watch.Seconds());
    m_verdicts.push_back(
        fmt::format("{}: {} differences; {} entries, {} with a value, of these {} changed, {} in full exports only",
                    name, Grouped(result.differences), Grouped(result.entries), Grouped(result.admitted),
                    Grouped(result.changed), Grouped(result.fullOnly)));
    m_verdicts.insert(m_verdicts.end(), result.description.begin(), result.description.end());
    return result.Equal();
  }

  const Arguments& m_arguments;
  const Stream m_stream;
  const FileDirectory m_directory;
  std::vector<std::string> m_verdicts;
};

}  // namespace
}  // namespace IncrementalExport

int main(int argc, char** argv) {
  CLI::App app("Exports a Kavo table to a snapshot and increments, restores them, and compares.");
  try {
    IncrementalExport::Arguments arguments;
    IncrementalExport::Declare(app, arguments);
    app.parse(argc, argv);
    // A restore offers keys that may be there already and looks at the answer: these lines say nothing new.
    const kavo::LogSink log([](const kavo::LogLine& line) {
      if (line.Format().find(": Insert failed, ret[") == std::string_view::npos) {
        std::fputs(line.Text().data(), stderr);
      }
    });
    const bool equal = IncrementalExport::Demonstration(arguments).Run();
    fmt::print("verdict: {}\n", equal ? "the tables are equal" : "THE TABLES DIFFER");
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
      throw std::runtime_error("standard output: cannot be written");
    }
    return equal ? 0 : 1;
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  } catch (const std::exception& error) {
    fmt::print(stderr, "incremental_export: {}\n", error.what());
    return 1;
  }
}
