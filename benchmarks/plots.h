// The results as pictures, drawn by gnuplot.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "results.h"

namespace Bench {

struct Plot {
  const char* file;  // without its ending
  const char* caption;
  std::size_t table;  // the table of tables.h that it goes with
};

inline constexpr std::array PLOTS = {
    Plot{"ratios", "How much faster than oneTBB", 0},
    Plot{"limits", "Share of what the memory allows", 1},
    Plot{"growth_inserts", "Worst insert while a table grows", 2},
    Plot{"growth_lookups", "Worst lookup while a table grows", 2},
    Plot{"insert_tail", "Inserts while a table grows: how many are how slow", 2},
    Plot{"memory", "Resident bytes an entry", 3},
};

// Writes every plot as SVG into `folder`.
void DrawPlots(const Results& results, const std::string& folder);

}  // namespace Bench
