#include "tables.h"

#include <fmt/core.h>

#include "kavo_layout.h"

namespace Bench {
namespace {

constexpr const char* NONE = "-";

std::string Duration(double nanoseconds) {
  if (nanoseconds < 1e3) {
    return fmt::format("{:.0f} ns", nanoseconds);
  }
  if (nanoseconds < 1e6) {
    return fmt::format("{:.1f} us", nanoseconds / 1e3);
  }
  return nanoseconds < 1e9 ? fmt::format("{:.2f} ms", nanoseconds / 1e6) : fmt::format("{:.2f} s", nanoseconds / 1e9);
}

TextTable Throughput(const Results& results) {
  TextTable table;
  table.title = "Operations a second";
  table.head = {"million a second, ratio to oneTBB"};
  for (const SubjectTimes& subject : results.times) {
    table.head.emplace_back(subject.name);
  }
  for (std::size_t r = 0; r < ROWS; ++r) {
    const Row row = static_cast<Row>(r);
    std::vector<std::string> cells = {results.rows[row].title};
    for (const SubjectTimes& subject : results.times) {
      cells.push_back(subject.Has(row)
                          ? fmt::format("{:.2f}  {:.2f}x", 1e3 / subject.MedianOf(row), results.Ratio(subject, row))
                          : NONE);
    }
    table.rows.push_back(std::move(cells));
  }
  table.notes = {
      fmt::format("{} entries of {} bytes, {} threads (exports: one). Medians of {} rounds; in every round each table "
                  "runs once, and the order of the tables changes from round to round.",
                  Grouped(results.entries), VALUE_BYTES, results.threads, results.rounds),
      "Hits and misses come in random order, and a word of each value that is found is read. A batch is 256 keys. "
      "Where "
      "a table has no call for batches, its batched rows are single calls; rows that only Kavo has are compared with "
      "oneTBB's single calls.",
      "libcuckoo begins with room for 262,144 entries wherever others begin with 1,000: lookups and inserts beside its "
      "growth crash now and then in smaller tables.",
      "The training mix finds or inserts a key and adds 16 numbers to its value. Keys are heavy-tailed: the r-th most "
      "frequent comes up in proportion to 1/r, and one key in twenty is new. oneTBB and libcuckoo add under their lock "
      "of the entry; Kavo gives addresses (KavoBatchLookupOrInsert, or KavoLookupOrInsert in single calls) and the "
      "addition uses relaxed atomic accesses.",
      "Exports visit every entry. libcuckoo keeps values in its cells and reads them in order; oneTBB follows the "
      "links "
      "of its buckets; Kavo hands out keys and addresses (KavoBatchGetNext, 1,024 a call), and whoever reads the "
      "values "
      "goes to them one by one.",
      "For Kavo a missed key in a single call is a failure, for which it writes log lines: they go to a sink of the "
      "program (KavoSetLogSink) that drops them, and this is part of what is measured.",
  };
  return table;
}

// The notes below say so.
static_assert(CELL_BYTES == 16 && BLOCK_BYTES == 72);

TextTable Limits(const Results& results) {
  const MachineLimits::Rates rates = results.MedianLimits();
  TextTable table;
  table.title = "Beside what the memory allows";
  table.head = {"share of the memory's rate", "lines", "bytes", "limit"};
  for (const SubjectTimes& subject : results.times) {
    table.head.emplace_back(subject.name);
  }
  for (std::size_t r = 0; r < ROWS; ++r) {
    const Row row = static_cast<Row>(r);
    const double limit = results.LimitNanoseconds(row);
    std::vector<std::string> cells = {results.rows[row].title, fmt::format("{:.2f}", results.rows[row].lines),
                                      fmt::format("{:.0f}", results.rows[row].bytes), fmt::format("{:.1f} ns", limit)};
    for (const SubjectTimes& subject : results.times) {
      cells.push_back(subject.Has(row) ? fmt::format("{:.1f} ns  {:.0f}%", subject.MedianOf(row),
                                                     100 * limit / subject.MedianOf(row))
                                       : NONE);
    }
    table.rows.push_back(std::move(cells));
  }
  table.notes = {
      fmt::format(
          "This machine reads independent cache lines at random places, requested ahead, in {:.2f} ns each with "
          "{} threads ({:.2f} ns with one), and {:.1f} GB a second in order ({:.1f} with one thread), out of {:.0f} "
          "MiB on huge pages: medians of the same rounds.",
          rates.lineNanoseconds, results.threads, rates.oneThreadLineNanoseconds, rates.bytesASecond / 1e9,
          rates.oneThreadBytesASecond / 1e9, static_cast<double>(results.limitRangeBytes) / (1024.0 * 1024.0)),
      "Lines and bytes are what one operation on Kavo's layout touches at least: lines at random places, bytes in "
      "order. The limit is their cost at those rates; a share is the limit over the measured time of an operation "
      "(wall "
      "time over operations of all threads). Cells are 16 bytes, four to a line; a value and its header take 72 bytes, "
      "so that a whole value lies on 1.88 lines. A line is counted once, read or written. In the training mix it is "
      "counted once for each key that comes up, as if every further access were free. What still lies in the "
      "processor's caches comes faster than the limit says.",
  };
  return table;
}

TextTable Latency(const Results& results) {
  using Step = SubjectLatency::Step;
  TextTable table;
  table.title = "While a table grows";
  table.head = {"", "insert p50", "p99.9", "worst", "worst of all", "lookup p50", "p99.9", "worst", "worst of all"};
  for (const SubjectLatency& subject : results.latencies) {
    std::vector<std::string> cells = {subject.name};
    for (const Step step : {Step::INSERT, Step::LOOKUP}) {
      cells.push_back(Duration(subject.MedianQuantile(step, 0.5)));
      cells.push_back(Duration(subject.MedianQuantile(step, 0.999)));
      cells.push_back(Duration(subject.MedianWorst(step)));
      cells.push_back(Duration(subject.Worst(step)));
    }
    table.rows.push_back(std::move(cells));
  }
  table.notes = {fmt::format(
      "One thread inserts single keys from 1,000 entries to {}; another looks up keys whose insert has "
      "returned, chosen "
      "at random. Each call is timed, the clock included. Medians of {} rounds, and the worst call of all "
      "rounds. In the row "
      "of bare memory the inserting thread writes {} bytes an entry, one after the other, to fresh memory on "
      "huge pages, and the other reads a byte at random of what was written: long times there are the doing "
      "of the system, which has to find and clear the pages, and of whatever else runs, and such times are "
      "in the other rows too.",
      Grouped(results.entries), results.latencyRounds, GROWN_ENTRY_BYTES)};
  return table;
}

TextTable ResidentBytesTable(const Results& results) {
  TextTable table;
  table.title = "Memory";
  table.head = {"", "bytes an entry", "at the peak", "creation", "then resident", "filling", "destruction"};
  for (const SubjectResident& subject : results.residents) {
    const Resident& resident = subject.resident;
    table.rows.push_back(
        {fmt::format("{}, {}", subject.name, FillName(subject.fill)), fmt::format("{:.1f}", resident.bytesAnEntry),
         fmt::format("{:.1f}", resident.peakBytesAnEntry), fmt::format("{:.2f} ms", resident.createMilliseconds),
         fmt::format("{:.1f} MiB", resident.createdMebibytes),
         fmt::format("{:.2f} M/s", static_cast<double>(results.entries) / resident.fillSeconds / 1e6),
         fmt::format("{:.1f} ms", resident.destroyMilliseconds)});
  }
  table.notes = {fmt::format(
      "Resident memory of the process, less what it was before the table was made, over {} entries of {} bytes; "
      "the peak is the most that was resident while the table was filled, growth included. Each line is a "
      "process of its own.",
      results.entries, VALUE_BYTES)};
  return table;
}

}  // namespace

std::vector<TextTable> Tables(const Results& results) {
  return {Throughput(results), Limits(results), Latency(results), ResidentBytesTable(results)};
}

}  // namespace Bench
