// Writes what a run measured into a folder of the documentation.
#pragma once

#include <string>

#include "results.h"

namespace Bench {

// `folder`/performance.md with the tables, and `folder`/performance/ with the numbers as JSON and the plots. `command`
// is how the run was started.
void WriteReport(const Results& results, const std::string& folder, const std::string& command);

}  // namespace Bench
