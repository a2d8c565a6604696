// Kavo's tables beside the maps that one would use instead, and beside what the machine's memory allows. Every table
// does the same work in one process, in rounds. Writes what it measured to the standard output, as JSON: every sample,
// by round; report.py makes tables and plots of them.
#include <fmt/core.h>
#include <malloc.h>
#include <oneapi/tbb/scalable_allocator.h>
#include <oneapi/tbb/version.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>

#include "kavo_layout.h"
#include "log_lines.h"
#include "machine_limits.h"
#include "subject_entry.h"
#include "workload_rows.h"

namespace {

using namespace Bench;
using Json = nlohmann::ordered_json;
using Subjects = std::vector<SubjectEntry>;

struct Options {
  std::uint64_t entries = 1'000'000;
  unsigned threads = 2;
  unsigned rounds = 0;
  std::string memoryOf;
  unsigned fill = GROWN;
};

constexpr std::uint64_t MANY_ENTRIES = 4'000'000;
constexpr unsigned MAX_LATENCY_ROUNDS = 3;

// In the order of the report; the first is the measure of all.
Subjects AllSubjects() {
  return {TbbEntry(), CuckooEntry(), KavoWholeEntry(), KavoGradualEntry(), FloorEntry(), BareMemoryEntry()};
}

// Those that have what `member` points to.
template <class Member>
Subjects SubjectsWith(Member SubjectEntry::*member) {
  Subjects subjects = AllSubjects();
  std::erase_if(subjects, [member](const SubjectEntry& subject) { return subject.*member == nullptr; });
  return subjects;
}

void Say(const std::string& text) {
  fmt::print(stderr, "{}\n", text);
}

// Every table starts with an empty heap: what the one before it freed goes back to the system, whichever allocator it
// used. So all of them pay for the pages that they touch, as a table of a new process does.
void ReturnFreedMemory() {
  ::malloc_trim(0);
  ::scalable_allocation_command(TBBMALLOC_CLEAN_ALL_BUFFERS, nullptr);
}

// Another order in each round.
template <class Step>
void EachInTurn(const Subjects& subjects, unsigned round, const Step& step) {
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    step(subjects[(i + round) % subjects.size()]);
    ReturnFreedMemory();
  }
}

void RunRounds(const Options& options, Json& results) {
  const Subjects subjects = SubjectsWith(&SubjectEntry::round);
  const KeySets keys = MakeKeySets(options.entries);
  Json& workloads = results["workloads"];
  for (const Row& row : Rows(keys)) {
    workloads[row.id] = {{"title", row.title},
                         {"comparedWith", row.comparedWith},
                         {"threads", row.oneThread ? 1 : options.threads},
                         {"lines", row.lines},
                         {"bytes", row.bytes},
                         {"nanoseconds", Json::object()}};
  }
  // As much memory as the cells and blocks of a pre-sized table.
  const MachineLimits limits(CELL_BYTES * PreSizedCells(options.entries) + BLOCK_BYTES * options.entries,
                             options.threads);
  results["limits"] = {{"rangeBytes", limits.Bytes()}, {"rounds", Json::array()}};
  for (unsigned round = 0; round < options.rounds; ++round) {
    Say(fmt::format("round {} of {}", round + 1, options.rounds));
    results["limits"]["rounds"].push_back(limits.Measure());
    EachInTurn(subjects, round, [&](const SubjectEntry& subject) {
      for (const auto& [row, nanoseconds] : subject.round(keys, options.threads)) {
        workloads.at(row)["nanoseconds"][subject.name].push_back(nanoseconds);
      }
    });
  }
}

// How long calls take: by the share of them that is slower, and the worst.
Json InJson(const CallTimes& times) {
  Json slower;
  for (const double share : {0.5, 0.2, 0.1, 0.05, 0.02, 0.01, 5e-3, 2e-3, 1e-3, 5e-4, 2e-4, 1e-4, 5e-5, 2e-5, 1e-5}) {
    slower[fmt::format("{:f}", share)] = times.all.Quantile(1 - share);
  }
  return {{"slower", slower}, {"worst", times.all.Worst()}, {"worstOfSlices", times.worstOfSlices}};
}

void RunGrowth(const Options& options, Json& results) {
  const unsigned rounds = std::min(options.rounds, MAX_LATENCY_ROUNDS);
  results["latencyRounds"] = rounds;
  Json& growth = results["growthNanoseconds"];
  for (unsigned round = 0; round < rounds; ++round) {
    Say(fmt::format("growth, round {} of {}", round + 1, rounds));
    EachInTurn(SubjectsWith(&SubjectEntry::growthLatency), round, [&](const SubjectEntry& subject) {
      const GrowthLatency latency = subject.growthLatency(options.entries);
      growth[subject.name]["insert"].push_back(InJson(latency.inserts));
      growth[subject.name]["lookup"].push_back(InJson(latency.lookups));
    });
  }
}

// Runs this program again for one table.
Json MeasureInChild(const Options& options, const SubjectEntry& subject, Fill fill) {
  const std::string command = fmt::format("'{}' --entries {} --threads {} --memory-of '{}' --fill {}",
                                          std::filesystem::read_symlink("/proc/self/exe").string(), options.entries,
                                          options.threads, subject.name, static_cast<unsigned>(fill));
  std::FILE* const output = ::popen(command.c_str(), "r");
  Check(output != nullptr, "a child process");
  Json measured = Json::parse(output, nullptr, false);
  Check(::pclose(output) == 0 && measured.is_object(), "the child process measured");
  return measured;
}

void RunResidents(const Options& options, Json& results) {
  Say("memory");
  for (const SubjectEntry& subject : AllSubjects()) {
    for (const Fill fill : subject.fills) {
      Json measured = {{"table", subject.name}, {"fill", FILL_NAMES.at(fill)}};
      measured.update(MeasureInChild(options, subject, fill));
      results["memory"].push_back(std::move(measured));
    }
  }
}

Json RunAll(const Options& options) {
  const Clock::time_point begin = Clock::now();
#ifdef __clang__
  const char* const compiler = "clang " __clang_version__;
#else
  const char* const compiler = "g++ " __VERSION__;
#endif
  Json results = {{"compiler", compiler},
                  {"oneTbbVersion", fmt::format("{}.{}.{}", TBB_VERSION_MAJOR, TBB_VERSION_MINOR, TBB_VERSION_PATCH)},
                  {"entries", options.entries},
                  {"threads", options.threads},
                  {"rounds", options.rounds},
                  {"valueBytes", VALUE_BYTES},
                  {"cellBytes", CELL_BYTES},
                  {"blockBytes", BLOCK_BYTES},
                  {"wholeValueLines", WHOLE_VALUE_LINES},
                  {"grownEntryBytes", GROWN_ENTRY_BYTES}};
  RunResidents(options, results);
  RunRounds(options, results);
  RunGrowth(options, results);
  results["seconds"] = Seconds(Clock::now() - begin);
  return results;
}

// What this program does when it was started by itself for one measurement of memory.
Json RunResident(const Options& options) {
  const Subjects subjects = AllSubjects();
  const auto subject = std::find_if(subjects.begin(), subjects.end(),
                                    [&](const SubjectEntry& entry) { return entry.name == options.memoryOf; });
  Check(subject != subjects.end(), "the table of this name exists");
  return subject->resident(static_cast<Fill>(options.fill), options.entries, options.threads);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Measures Kavo's tables beside the maps that one would use instead; writes JSON.");
  app.add_option("--entries", options.entries, "entries of each table, 10,000 to 1,000,000,000")
      ->capture_default_str()
      ->check(CLI::Range(std::uint64_t{10'000}, std::uint64_t{1'000'000'000}));
  app.add_option("--threads", options.threads, "threads of each workload")
      ->capture_default_str()
      ->check(CLI::Range(1U, 256U));
  app.add_option("--rounds", options.rounds, "rounds of each workload (5, or 3 for many entries)")
      ->check(CLI::Range(1U, 100U));
  app.add_option("--memory-of", options.memoryOf)->group("");
  app.add_option("--fill", options.fill)->group("");
  CLI11_PARSE(app, argc, argv);
  if (options.rounds == 0) {
    options.rounds = options.entries <= MANY_ENTRIES ? 5 : 3;
  }
  DropLogLines();
  const Json results = options.memoryOf.empty() ? RunAll(options) : RunResident(options);
  fmt::print("{}\n", results.dump());
  return 0;
}
