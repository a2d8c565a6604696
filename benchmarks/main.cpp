// Kavo's tables beside the maps that one would use instead, and beside what the machine's memory allows. Every table
// does the same work in one process, in rounds.
#include <fmt/core.h>
#include <malloc.h>
#include <oneapi/tbb/scalable_allocator.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "kavo_layout.h"
#include "report.h"
#include "results.h"
#include "subject_entry.h"
#include "subjects/kavo_subject.h"
#include "tables.h"

namespace {

using namespace Bench;

struct Options {
  std::uint64_t entries = 1'000'000;
  unsigned threads = 2;
  unsigned rounds = 0;
  bool report = false;
  std::string reportTo = BENCH_DOCS_FOLDER;
  std::string residentOf;
  int fill = 0;
};

constexpr std::uint64_t MANY_ENTRIES = 4'000'000;
constexpr unsigned MAX_LATENCY_ROUNDS = 3;

void Say(const std::string& text) {
  fmt::print(stderr, "{}\n", text);
}

// Every table starts with an empty heap: what the one before it freed goes back to the system, whichever allocator it
// used. So all of them pay for the pages that they touch, as a table of a new process does.
void ReturnFreedMemory() {
  ::malloc_trim(0);
  ::scalable_allocation_command(TBBMALLOC_CLEAN_ALL_BUFFERS, nullptr);
}

void RunRounds(const Options& options, Results& results) {
  const std::vector<SubjectEntry>& subjects = Subjects();
  const KeySets keys = MakeKeySets(options.entries);
  results.rows = RowInfos(options.entries, keys);
  for (const SubjectEntry& subject : subjects) {
    results.times.push_back({subject.name, {}});
  }
  // As much memory as the cells and blocks of a pre-sized table.
  const MachineLimits limits(CELL_BYTES * PreSizedCells(options.entries) + BLOCK_BYTES * options.entries,
                             options.threads);
  results.limitRangeBytes = limits.Bytes();
  for (unsigned round = 0; round < options.rounds; ++round) {
    Say(fmt::format("round {} of {}", round + 1, options.rounds));
    results.limits.push_back(limits.Measure());
    for (std::size_t i = 0; i < subjects.size(); ++i) {
      const std::size_t turn = (i + round) % subjects.size();
      const RoundTimes times = subjects[turn].round(keys, options.threads);
      ReturnFreedMemory();
      for (std::size_t row = 0; row < ROWS; ++row) {
        if (times[row]) {
          results.times[turn].nanoseconds[row].push_back(*times[row]);
        }
      }
    }
  }
}

void RunGrowth(const Options& options, Results& results) {
  std::vector<SubjectEntry> subjects;
  for (const SubjectEntry& subject : Subjects()) {
    if (subject.growthLatency != nullptr) {
      subjects.push_back(subject);
    }
  }
  subjects.push_back(BareMemoryOnly());
  for (const SubjectEntry& subject : subjects) {
    results.latencies.push_back({subject.name, {}});
  }
  for (unsigned round = 0; round < results.latencyRounds; ++round) {
    Say(fmt::format("growth, round {} of {}", round + 1, results.latencyRounds));
    for (std::size_t i = 0; i < subjects.size(); ++i) {
      const std::size_t turn = (i + round) % subjects.size();
      results.latencies[turn].rounds.push_back(subjects[turn].growthLatency(options.entries));
      ReturnFreedMemory();
    }
  }
}

void RunResidents(const Options& options, Results& results) {
  Say("memory");
  for (const SubjectEntry& subject : Subjects()) {
    for (const Fill fill : subject.fills) {
      results.residents.push_back(
          {subject.name, fill, MeasureInChild(subject.name, fill, options.entries, options.threads)});
    }
  }
}

int RunAll(const Options& options) {
  const Clock::time_point begin = Clock::now();
  Results results;
  results.entries = options.entries;
  results.threads = options.threads;
  results.rounds = options.rounds;
  results.latencyRounds = std::min(options.rounds, MAX_LATENCY_ROUNDS);
  RunResidents(options, results);
  RunRounds(options, results);
  RunGrowth(options, results);
  results.seconds = Seconds(Clock::now() - begin);
  for (const TextTable& table : Tables(results)) {
    fmt::print("{}\n", table.Plain());
  }
  fmt::print("took {:.0f} s\n", results.seconds);
  if (options.report) {
    WriteReport(results, options.reportTo,
                fmt::format("./run bench --entries {} --threads {} --rounds {} --report", options.entries,
                            options.threads, options.rounds));
    fmt::print("wrote {}/performance.md and {}/performance/\n", options.reportTo, options.reportTo);
  }
  return 0;
}

// What this program does when it was started by itself for one measurement of memory.
int RunResident(const Options& options) {
  const SubjectEntry* const subject = FindSubject(options.residentOf);
  Check(subject != nullptr, "the table of this name exists");
  PrintResident(subject->resident(static_cast<Fill>(options.fill), options.entries, options.threads));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Kavo's tables beside the maps that one would use instead, and beside what the memory allows.");
  app.add_option("--entries", options.entries, "entries of each table, 10,000 to 1,000,000,000")
      ->capture_default_str()
      ->check(CLI::Range(std::uint64_t{10'000}, std::uint64_t{1'000'000'000}));
  app.add_option("--threads", options.threads, "threads of each workload")
      ->capture_default_str()
      ->check(CLI::Range(1U, 256U));
  app.add_option("--rounds", options.rounds, "rounds of each workload (5, or 3 for many entries)")
      ->check(CLI::Range(1U, 100U));
  app.add_flag("--report", options.report, "write performance.md, the numbers and the plots");
  app.add_option("--report-to", options.reportTo, "the folder that the report goes to")->capture_default_str();
  app.add_option("--resident-of", options.residentOf)->group("");
  app.add_option("--fill", options.fill)->group("");
  CLI11_PARSE(app, argc, argv);
  if (options.rounds == 0) {
    options.rounds = options.entries <= MANY_ENTRIES ? 5 : 3;
  }
  SilenceKavo();
  return options.residentOf.empty() ? RunAll(options) : RunResident(options);
}
