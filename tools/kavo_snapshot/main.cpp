// Looks into folders of snapshots: what there is, whether it is whole, how two differ; merges a chain to one full
// snapshot, and prints rows.
#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "kavo_snapshot/commands.h"

namespace {

struct Arguments {
  std::string place;
  std::string other;
  std::string item;
  int level = 0;
};

const char* const FOOTER =
    "SNAPSHOT is FOLDER, for its newest one, or FOLDER@NUMBER; a chain is a full snapshot and its increments.\n"
    "Exit codes: 0 done; 1 diff has found differences; 2 something is wrong: the arguments, a file, the disk.";

void DeclarePlace(CLI::App& command, Arguments& arguments) {
  command.add_option("SNAPSHOT", arguments.place, "FOLDER or FOLDER@NUMBER")->required();
}

}  // namespace

int main(int argc, char** argv) {
  using namespace KavoSnapshot;
  CLI::App app("Looks into folders of snapshots of Kavo embeddings and tables.");
  app.footer(FOOTER);
  app.require_subcommand(1);
  Arguments arguments;
  CLI::App& info = *app.add_subcommand("info", "Prints what snapshots there are, or what one is");
  DeclarePlace(info, arguments);
  CLI::App& verify = *app.add_subcommand("verify", "Reads a snapshot and its chain, and checks every byte");
  DeclarePlace(verify, arguments);
  CLI::App& diff = *app.add_subcommand("diff", "Compares what two snapshots hold, each with its chain");
  DeclarePlace(diff, arguments);
  diff.add_option("OTHER", arguments.other, "The other one")->required();
  CLI::App& merge = *app.add_subcommand("merge", "Makes one full snapshot of a snapshot and its chain");
  DeclarePlace(merge, arguments);
  merge.add_option("FOLDER", arguments.other, "Where the new one goes")->required();
  merge.add_option("--compress", arguments.level, "Level of zstd; 0: none")->check(CLI::Range(0, 19));
  CLI::App& csv = *app.add_subcommand("csv", "Prints the rows of an item, in no particular order");
  DeclarePlace(csv, arguments);
  csv.add_option("--item", arguments.item, "Its name")->required();
  try {
    app.parse(argc, argv);
    const int code = info.parsed()     ? PrintInfo(arguments.place, stdout)
                     : verify.parsed() ? Verify(arguments.place, stdout)
                     : diff.parsed()   ? Diff(arguments.place, arguments.other, stdout)
                     : merge.parsed()  ? Merge(arguments.place, arguments.other, arguments.level, stdout)
                                       : PrintCsv(arguments.place, arguments.item, stdout);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
      throw std::runtime_error("standard output: cannot be written");
    }
    return code;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_GOOD : EXIT_TROUBLE;
  } catch (const std::exception& error) {
    fmt::print(stderr, "kavo-snapshot: {}\n", error.what());
    return EXIT_TROUBLE;
  }
}
