#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "results.h"

namespace Bench {

nlohmann::ordered_json ResultsAsJson(const Results& results, const std::string& command);

}  // namespace Bench
