// All functions of tables at once, for as long as asked: many tables of all shapes are made, grow, are exported and
// destroyed, and every answer is checked. A line a minute; the exit status is 0 only when no
// answer was wrong and memory stayed within its bound and came back at the end.
#include <malloc.h>
#include <unistd.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <string_view>
#include <thread>
#include <vector>

#include "stress/soak_table.h"

namespace KavoTest {
namespace {

struct Options {
  double minutes = 1;
  unsigned long seed = std::random_device{}();
  unsigned threads = 4;
};

constexpr unsigned TABLES = 8;       // alive at once
constexpr std::size_t KEYS = 65536;  // of the largest
constexpr unsigned MOST_MIB = 512;   // of resident memory, while it runs
constexpr unsigned REST_MIB = 64;    // that may stay at the end

// A sanitizer's own memory is not ours to bound.
#ifdef KAVO_SANITIZED
constexpr bool BOUNDED = false;
#else
constexpr bool BOUNDED = true;
#endif

unsigned ResidentMiB() {
  unsigned long size = 0;
  unsigned long resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return static_cast<unsigned>(resident * static_cast<unsigned long>(sysconf(_SC_PAGESIZE)) >> 20);
}

void Report(SoakTotals& totals, const char* mismatch) {
  if (++totals.mismatches <= 20) {
    std::fprintf(stderr, "MISMATCH %s\n", mismatch);
  }
}

// No memory runs out here, and no wait lasts long.
void OnLine(void* context, unsigned, int level, const char* format, va_list) {
  CountLine(level, format);
  const std::string_view text(format);
  if (level == KAVO_LOG_LEVEL_EVENT || text.find("overtime") != text.npos || text.find("MAX_WAIT_TIME") != text.npos ||
      text.find("Waiting timed out") != text.npos) {
    Report(*static_cast<SoakTotals*>(context), format);
  }
}

void SetSink(SoakTotals& totals) {
  const KavoLogSink sink{nullptr, &OnLine, &totals};
  ExpectEqual(KavoSetLogSink(&sink), KAVO_SUCCESS, "status of a new sink");
}

bool Run(const Options& options) {
  std::printf("seed %lu, %u threads, %u tables of up to %zu keys, %.2f minutes\n", options.seed, options.threads,
              TABLES, KEYS, options.minutes);
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const auto minutes = [start] { return std::chrono::duration<double>(Clock::now() - start).count() / 60; };
  SoakTotals totals;
  SetSink(totals);
  std::deque<SoakTable> tables;
  for (unsigned place = 0; place < TABLES; ++place) {
    tables.emplace_back(place, options.threads, KEYS, totals);
  }
  const auto checked = [&totals](const auto& calls) {
    try {
      calls();
    } catch (const Mismatch& mismatch) {
      Report(totals, mismatch.what());
    }
  };
  std::atomic<bool> over{false};
  const auto work = [&](unsigned thread) {
    checked([&] {
      for (Random random(options.seed + thread); !over;) {
        tables[random() % tables.size()].Visit(thread, random);
        if (random() % 4096 == 0) {
          SetSink(totals);
        }
      }
    });
  };
  const unsigned before = ResidentMiB();
  unsigned resident = before;
  unsigned most = before;
  const auto report = [&](const char* what) {
    std::printf(
        "%s %.1f: %llu calls, %llu tables destroyed, %llu growths, %u mismatches, resident %u MiB, at most %u\n", what,
        minutes(), totals.calls.load(), totals.tables.load(), totals.growths.load(), totals.mismatches.load(), resident,
        most);
    std::fflush(stdout);
  };
  std::vector<std::jthread> threads;
  for (unsigned t = 0; t < options.threads; ++t) {
    threads.emplace_back(work, t);
  }
  const auto isWell = [&] { return totals.mismatches == 0 && (!BOUNDED || most <= MOST_MIB); };
  for (unsigned reported = 0; minutes() < options.minutes && isWell();) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    resident = ResidentMiB();
    most = std::max(most, resident);
    if (minutes() >= reported + 1) {
      ++reported;
      report("minute");
    }
  }
  over = true;
  threads.clear();
  for (SoakTable& table : tables) {
    checked([&table] { table.End(); });
  }
  tables.clear();
  malloc_trim(0);
  resident = ResidentMiB();
  report("end, minute");
  KavoSetLogSink(nullptr);
  const bool isBack = !BOUNDED || resident <= before + REST_MIB;
  const bool passed = isWell() && isBack && totals.tables > 0;
  std::printf("%s: memory %s, resident %u MiB before the first table\n", passed ? "PASSED" : "FAILED",
              BOUNDED ? "held to its bound" : "not bounded under a sanitizer", before);
  return passed;
}

}  // namespace
}  // namespace KavoTest

int main(int argc, char** argv) {
  KavoTest::Options options;
  CLI::App app("All functions of tables at once; every answer is checked");
  app.add_option("--minutes", options.minutes, "How long")->check(CLI::PositiveNumber)->capture_default_str();
  app.add_option("--seed", options.seed, "Seed of the random choices; none: a new one");
  app.add_option("--threads", options.threads)->check(CLI::Range(1U, 256U))->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  return KavoTest::Run(options) ? 0 : 1;
}
