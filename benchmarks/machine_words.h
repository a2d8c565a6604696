// The machine and the tables of the comparison, in words, for a reader elsewhere. No names of hosts or people.
#pragma once

#include <string>

namespace Bench {

std::string MachineInWords();
std::string SubjectsInWords();

}  // namespace Bench
