// Time and resident memory of making a table for a given number of entries, and of filling it: once with KavoInsert
// into the table's stock of blocks, once with KavoLookupOrInsert, which takes fresh ones, and once grown from 8
// entries.
//
//   footprint [ENTRIES [VALUE_BYTES]]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kavo.h"

namespace {

constexpr unsigned TABLE = 1;

double ResidentMiB() {
  long pages = 0;
  long resident = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r"); file != nullptr) {
    if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2) {
      resident = 0;
    }
    std::fclose(file);
  }
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

// Spreads 0, 1, 2 ... over all 63-bit keys; no two give the same.
long Mix(unsigned long long n) {
  n = (n + 1) * 0x9E3779B97F4A7C15ULL;
  n = (n ^ (n >> 32)) * 0xD6E8FEB86659FD93ULL;
  return static_cast<long>((n ^ (n >> 32)) >> 1);
}

void Check(int status, const char* call) {
  if (status != KAVO_SUCCESS) {
    std::fprintf(stderr, "%s: status %d\n", call, status);
    std::exit(1);
  }
}

class Stopwatch {
 public:
  double Seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count(); }

 private:
  std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

enum class Fill { INSERT, LOOKUP_OR_INSERT };

void Measure(const char* name, unsigned long long entries, unsigned size, unsigned valueLen, Fill fill) {
  std::vector<unsigned char> value(valueLen, 1);
  const double before = ResidentMiB();
  const Stopwatch creating;
  Check(KavoInitHashTable(TABLE, size, valueLen, KAVO_TABLE_TYPE_BASIC), "KavoInitHashTable");
  const double createSeconds = creating.Seconds();
  const double created = ResidentMiB();
  const Stopwatch filling;
  for (unsigned long long n = 0; n < entries; ++n) {
    if (fill == Fill::INSERT) {
      Check(KavoInsert(TABLE, Mix(n), value.data(), valueLen, 0, 0), "KavoInsert");
    } else {
      unsigned char* bytes = nullptr;
      unsigned length = 0;
      unsigned isFind = 0;
      Check(KavoLookupOrInsert(TABLE, Mix(n), &bytes, &length, &isFind, 0), "KavoLookupOrInsert");
      bytes[0] = 1;
    }
  }
  const double fillSeconds = filling.Seconds();
  const double filled = ResidentMiB();
  const Stopwatch destroying;
  Check(KavoUninitHashTable(TABLE), "KavoUninitHashTable");
  std::printf("%-28s %9.2f ms %9.1f MiB %9.2f s %9.2f M/s %9.1f MiB %7.1f B %9.1f ms\n", name, createSeconds * 1e3,
              created - before, fillSeconds, static_cast<double>(entries) / fillSeconds / 1e6, filled - before,
              (filled - before) * 1024 * 1024 / static_cast<double>(entries), destroying.Seconds() * 1e3);
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned long long entries = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 10'000'000;
  const unsigned valueLen = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 64;
  if (entries == 0 || entries > 0xFFFFFFFFULL || valueLen == 0) {
    std::fprintf(stderr, "usage: %s [ENTRIES [VALUE_BYTES]]\n", argv[0]);
    return 2;
  }
  std::printf("%llu entries of %u bytes, one thread\n", entries, valueLen);
  std::printf("%-28s %12s %13s %11s %13s %13s %9s %12s\n", "", "create", "resident", "fill", "inserts", "resident",
              "an entry", "destroy");
  Measure("sized, insert", entries, static_cast<unsigned>(entries), valueLen, Fill::INSERT);
  Measure("sized, lookup-or-insert", entries, static_cast<unsigned>(entries), valueLen, Fill::LOOKUP_OR_INSERT);
  Measure("grown from 8, insert", entries, 8, valueLen, Fill::INSERT);
  return 0;
}
