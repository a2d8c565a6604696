// What the commands do, all but reading the command line. Each answers the exit code, and throws Qen::Failure.
#pragma once

#include <cstdio>
#include <string>

namespace KavoSnapshot {

inline constexpr int EXIT_GOOD = 0;
inline constexpr int EXIT_DIFFERENT = 1;
inline constexpr int EXIT_TROUBLE = 2;

int PrintInfo(const std::string& place, std::FILE* out);
int Verify(const std::string& place, std::FILE* out);
int Diff(const std::string& first, const std::string& second, std::FILE* out);
int Merge(const std::string& place, const std::string& folder, int level, std::FILE* out);
int PrintCsv(const std::string& place, const std::string& item, std::FILE* out);

}  // namespace KavoSnapshot
