#include "report.h"

#include <filesystem>
#include <fstream>

#include "check.h"
#include "machine_words.h"
#include "plots.h"
#include "report_json.h"
#include "tables.h"
#include "text_table.h"

namespace Bench {
namespace {

void Write(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  Check(file.good(), "the report is written");
}

std::string Page(const Results& results, const std::string& command) {
  std::string text = "# Performance\n\nMeasured and written by\n\n```sh\n" + command +
                     "\n```\n\nagainst the maps that one would use instead, in one process and in the same rounds.\n" +
                     "All numbers: [performance/results.json](performance/results.json).\n\n" +
                     Wrapped("Machine: " + MachineInWords()) + '\n' + Wrapped("Tables: " + SubjectsInWords()) + '\n';
  const std::vector<TextTable> tables = Tables(results);
  for (std::size_t i = 0; i < tables.size(); ++i) {
    text += tables[i].Markdown() + '\n';
    for (const Plot& plot : PLOTS) {
      if (plot.table == i) {
        text += std::string("![") + plot.caption + "](performance/" + plot.file + ".svg)\n\n";
      }
    }
  }
  text.pop_back();
  return text;
}

}  // namespace

void WriteReport(const Results& results, const std::string& folder, const std::string& command) {
  const std::filesystem::path page(folder);
  const std::filesystem::path details = page / "performance";
  std::filesystem::create_directories(details);
  Write(details / "results.json", ResultsAsJson(results, command).dump(2) + '\n');
  DrawPlots(results, details.string());
  Write(page / "performance.md", Page(results, command));
}

}  // namespace Bench
