#include "plots.h"

#include <fmt/core.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

#include "check.h"
#include "text_table.h"

namespace Bench {
namespace {

// A table has the same colour in every plot.
const char* ColourOf(const std::string& subject) {
  if (subject == "oneTBB") {
    return "#4477aa";
  }
  if (subject == "libcuckoo") {
    return "#ccbb44";
  }
  if (subject == "Kavo whole") {
    return "#228833";
  }
  if (subject == "Kavo gradual") {
    return "#66ccaa";
  }
  return subject == "bare memory" || subject == "floor" ? "#aaaaaa" : "#aa3377";
}

// Clustered bars: a cluster for each workload, a bar for each of the tables.
std::string Bars(const Results& results, const std::vector<SubjectTimes>& subjects, const char* axis,
                 const std::function<double(const SubjectTimes&, Row)>& height) {
  std::string script =
      "set style data histograms\nset style histogram clustered gap 1.5\nset style fill solid 1.0\n"
      "set boxwidth 0.95\nset xtics rotate by 35 right noenhanced scale 0\nset bmargin 9\n"
      "set lmargin 12\nset yrange [0:*]\n";
  script += fmt::format("set ylabel '{}'\n$data << EOD\nworkload", axis);
  for (const SubjectTimes& subject : subjects) {
    script += fmt::format(" \"{}\"", subject.name);
  }
  script += '\n';
  for (std::size_t r = 0; r < ROWS; ++r) {
    const Row row = static_cast<Row>(r);
    script += fmt::format("\"{}\"", results.rows[row].title);
    for (const SubjectTimes& subject : subjects) {
      script += subject.Has(row) ? fmt::format(" {:.3f}", height(subject, row)) : " 0";
    }
    script += '\n';
  }
  script += "EOD\nplot";
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    script += fmt::format("{} $data using {}:xtic(1) title columnheader({}) linecolor rgb '{}'", i == 0 ? "" : ",",
                          i + 2, i + 2, ColourOf(subjects[i].name));
  }
  return script + '\n';
}

// Without the floor, which is no table that one could use.
std::string Ratios(const Results& results) {
  std::vector<SubjectTimes> subjects = results.times;
  std::erase_if(subjects, [](const SubjectTimes& subject) { return subject.name == "floor"; });
  return "set arrow from graph 0, first 1 to graph 1, first 1 nohead dashtype 2 back\n" +
         Bars(results, subjects, "speed, oneTBB = 1",
              [&](const SubjectTimes& subject, Row row) { return results.Ratio(subject, row); });
}

std::string Limits(const Results& results) {
  return Bars(results, results.times, "per cent of the memory rate", [&](const SubjectTimes& subject, Row row) {
    return 100 * results.LimitNanoseconds(row) / subject.MedianOf(row);
  });
}

// One line a table: `points` writes its rows of two numbers.
std::string Lines(const Results& results, const std::function<std::string(const SubjectLatency&)>& points,
                  const char* style) {
  std::string script;
  for (std::size_t i = 0; i < results.latencies.size(); ++i) {
    script += fmt::format("$data{} << EOD\n{}EOD\n", i, points(results.latencies[i]));
  }
  script += "plot";
  for (std::size_t i = 0; i < results.latencies.size(); ++i) {
    const std::string& name = results.latencies[i].name;
    script += fmt::format("{} $data{} using 1:2 with {} linewidth 2 linecolor rgb '{}' title '{}'", i == 0 ? "" : ",",
                          i, style, ColourOf(name), name);
  }
  return script + '\n';
}

// The median over the rounds of each slice's worst.
std::string Growth(const Results& results,
                   std::array<std::uint64_t, GrowthLatency::SLICES> GrowthLatency::*worstOfSlices) {
  const auto points = [&](const SubjectLatency& subject) {
    std::string text;
    for (std::size_t slice = 0; slice < GrowthLatency::SLICES; ++slice) {
      std::vector<std::uint64_t> worst;
      for (const GrowthLatency& round : subject.rounds) {
        worst.push_back((round.*worstOfSlices)[slice]);
      }
      if (const double median = Median(worst); median > 0) {
        text +=
            fmt::format("{:.4f} {:.4f}\n",
                        static_cast<double>(results.entries * (slice + 1)) / GrowthLatency::SLICES / 1e6, median / 1e3);
      } else {
        text += '\n';  // no call there: a gap in the line
      }
    }
    return text;
  };
  return "set logscale y\nset xlabel 'million entries'\nset ylabel 'worst of 1/200 of the growth, microseconds'\n" +
         Lines(results, points, "linespoints pointtype 7 pointsize 0.3");
}

std::string InsertTail(const Results& results) {
  const auto points = [](const SubjectLatency& subject) {
    std::string text;
    for (const double beyond :
         {0.5, 0.2, 0.1, 0.05, 0.02, 0.01, 5e-3, 2e-3, 1e-3, 5e-4, 2e-4, 1e-4, 5e-5, 2e-5, 1e-5}) {
      text +=
          fmt::format("{} {}\n", 100 * beyond, subject.MedianQuantile(SubjectLatency::Step::INSERT, 1 - beyond) / 1e3);
    }
    return text;
  };
  return "set logscale xy\nset xrange [*:*] reverse\nset xlabel 'per cent of the inserts that are slower'\n"
         "set ylabel 'microseconds'\nset format x '%g'\n" +
         Lines(results, points, "linespoints");
}

std::string Memory(const Results& results) {
  std::string script =
      "set style data histograms\nset style histogram clustered gap 1\nset style fill solid 1.0\n"
      "set xtics rotate by 25 right noenhanced scale 0\nset bmargin 8\nset lmargin 14\n"
      "set yrange [0:*]\nset ylabel 'bytes an entry'\n$data << EOD\n";
  for (const SubjectResident& subject : results.residents) {
    script += fmt::format("\"{}, {}\" {:.1f} {:.1f}\n", subject.name, FillName(subject.fill),
                          subject.resident.bytesAnEntry, subject.resident.peakBytesAnEntry);
  }
  return script +
         "EOD\nplot $data using 2:xtic(1) title 'filled' linecolor rgb '#228833', "
         "$data using 3 title 'at the peak' linecolor rgb '#bbbbbb'\n";
}

std::string ScriptOf(const Results& results, const std::string& file) {
  if (file == "ratios") {
    return Ratios(results);
  }
  if (file == "limits") {
    return Limits(results);
  }
  if (file == "growth_inserts") {
    return Growth(results, &GrowthLatency::worstInserts);
  }
  if (file == "growth_lookups") {
    return Growth(results, &GrowthLatency::worstLookups);
  }
  return file == "insert_tail" ? InsertTail(results) : Memory(results);
}

}  // namespace

void DrawPlots(const Results& results, const std::string& folder) {
  std::FILE* const gnuplot = ::popen("gnuplot", "w");
  Check(gnuplot != nullptr, "gnuplot runs");
  for (const Plot& plot : PLOTS) {
    const std::string script = "reset\nset terminal svg size 1100,520 font 'sans-serif,13' background rgb 'white'\n" +
                               fmt::format("set output '{}/{}.svg'\nset title '{}, {} entries'\n", folder, plot.file,
                                           plot.caption, Grouped(results.entries)) +
                               "set grid ytics\nset border 3\nset tics nomirror\nset key outside right top\n" +
                               ScriptOf(results, plot.file) + "unset output\n";
    std::fwrite(script.data(), 1, script.size(), gnuplot);
  }
  Check(::pclose(gnuplot) == 0, "gnuplot draws the plots");
}

}  // namespace Bench
