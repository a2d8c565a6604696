#include "machine_words.h"

#include <fmt/core.h>
#include <oneapi/tbb/version.h>
#include <sys/sysinfo.h>

#include <fstream>
#include <thread>

#include "subjects/boost_subject.h"

namespace Bench {
namespace {

// The text behind the colon of the first line that begins with `field`.
std::string FieldOf(const char* path, const std::string& field) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(field)) {
      const std::size_t at = line.find_first_not_of(" \t", line.find(':') + 1);
      return at == std::string::npos ? "" : line.substr(at);
    }
  }
  return "unknown";
}

std::string HugePages() {
  std::ifstream file("/sys/kernel/mm/transparent_hugepage/enabled");
  std::string text;
  std::getline(file, text);
  const std::size_t begin = text.find('[');
  const std::size_t end = text.find(']');
  return begin == std::string::npos || end == std::string::npos ? "unknown" : text.substr(begin + 1, end - begin - 1);
}

// As the system says it, "32768K". (sysconf counts the caches of all cores of some processors, used or not.)
std::string CacheSize(int index) {
  std::ifstream file(fmt::format("/sys/devices/system/cpu/cpu0/cache/index{}/size", index));
  std::string text = "unknown";
  std::getline(file, text);
  return text;
}

bool IsVirtual() {
  return FieldOf("/proc/cpuinfo", "flags").find(" hypervisor") != std::string::npos;
}

}  // namespace

std::string MachineInWords() {
  struct sysinfo info {};
  ::sysinfo(&info);
  const double gibibytes =
      static_cast<double>(info.totalram) * static_cast<double>(info.mem_unit) / (1024.0 * 1024.0 * 1024.0);
  return fmt::format(
      "{} with {} cores{}, caches of {} (second level) and {} (third level), {:.0f} GiB of memory, "
      "transparent huge pages: {}; built with {} {}.",
      FieldOf("/proc/cpuinfo", "model name"), std::thread::hardware_concurrency(),
      IsVirtual() ? " (a virtual machine)" : "", CacheSize(2), CacheSize(3), gibibytes, HugePages(),
#ifdef __clang__
      "clang", __clang_version__
#else
      "g++", __VERSION__
#endif
  );
}

std::string SubjectsInWords() {
  std::string words = fmt::format("oneTBB is `concurrent_hash_map` of oneTBB {}.{}.{}; libcuckoo is `cuckoohash_map`; ",
                                  TBB_VERSION_MAJOR, TBB_VERSION_MINOR, TBB_VERSION_PATCH);
#if BENCH_HAS_BOOST_MAP
  words += "Boost flat is `concurrent_flat_map`; ";
#endif
  return words +
         "Kavo whole and Kavo gradual are one library, called through its exported functions, in its two ways of "
         "growing; floor is a bare table with Kavo's cells and blocks that cannot grow, does no checks and is no "
         "product: what the layout itself costs.";
}

}  // namespace Bench
