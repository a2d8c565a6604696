// The results as tables for a reader.
#pragma once

#include <vector>

#include "results.h"
#include "text_table.h"

namespace Bench {

std::vector<TextTable> Tables(const Results& results);

}  // namespace Bench
