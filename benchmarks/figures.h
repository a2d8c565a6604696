#pragma once

#include <map>
#include <string>

namespace Bench {

// What was measured, by the names that it has in the results.
using Figures = std::map<std::string, double>;

}  // namespace Bench
