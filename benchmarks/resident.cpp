#include "resident.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "check.h"

extern char** environ;

namespace Bench {
namespace {

constexpr const char* FORMAT = "%lf %lf %lf %lf %lf %lf";

double StatusBytes(std::string_view field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field)) {
      return std::stod(line.substr(field.size())) * 1024;
    }
  }
  Check(false, "/proc/self/status tells the resident memory");
  return 0;
}

}  // namespace

const char* FillName(Fill fill) {
  switch (fill) {
    case Fill::GROWN:
      return "grown";
    case Fill::SIZED:
      return "pre-sized";
    default:
      return "pre-sized, find-or-insert";
  }
}

double ResidentBytes() {
  return StatusBytes("VmRSS:");
}
double PeakResidentBytes() {
  return StatusBytes("VmHWM:");
}

void PrintResident(const Resident& r) {
  std::printf("%.6f %.6f %.6f %.6f %.6f %.6f\n", r.createMilliseconds, r.createdMebibytes, r.bytesAnEntry,
              r.peakBytesAnEntry, r.fillSeconds, r.destroyMilliseconds);
}

Resident MeasureInChild(std::string_view subject, Fill fill, std::uint64_t entries, unsigned threads) {
  std::array<int, 2> pipe{};
  Check(::pipe2(pipe.data(), O_CLOEXEC) == 0, "a pipe to the child process");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  std::vector<std::string> words = {"/proc/self/exe",
                                    "--resident-of",
                                    std::string(subject),
                                    "--fill",
                                    std::to_string(static_cast<int>(fill)),
                                    "--entries",
                                    std::to_string(entries),
                                    "--threads",
                                    std::to_string(threads)};
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  pid_t child = 0;
  Check(::posix_spawn(&child, words[0].c_str(), &actions, nullptr, arguments.data(), environ) == 0, "a child process");
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[1]);
  Resident r;
  std::FILE* const output = ::fdopen(pipe[0], "r");
  const bool read = std::fscanf(output, FORMAT, &r.createMilliseconds, &r.createdMebibytes, &r.bytesAnEntry,
                                &r.peakBytesAnEntry, &r.fillSeconds, &r.destroyMilliseconds) == 6;
  std::fclose(output);
  int status = 0;
  Check(::waitpid(child, &status, 0) == child && status == 0 && read, "the child process measured");
  return r;
}

}  // namespace Bench
