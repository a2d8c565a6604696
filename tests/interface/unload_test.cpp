// The library in a host that loads and unloads it at run time. This program is not linked with it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "kavo.h"

namespace {

long MappedBytes() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * sysconf(_SC_PAGESIZE);
}

// Registers tables of the array and of the map, with entries from two threads, and leaves them to the unloading. A
// thread that has inserted into a table of the map keeps the library until it ends, so this one does not.
void LoadUseAndUnload() {
  void* const library = dlopen(KAVO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, library) << dlerror();
  const auto init = reinterpret_cast<decltype(&KavoInitHashTable)>(dlsym(library, "KavoInitHashTable"));
  const auto insert = reinterpret_cast<decltype(&KavoInsert)>(dlsym(library, "KavoInsert"));
  ASSERT_NE(nullptr, init);
  ASSERT_NE(nullptr, insert);
  const long before = MappedBytes();
  for (const unsigned table : {0U, 1023U, 1024U, 4294967295U}) {
    ASSERT_EQ(KAVO_SUCCESS, init(table, 4'000'000, 8, KAVO_TABLE_TYPE_BASIC));
    const auto fill = [&](long key) {
      unsigned char value[8] = {1};
      EXPECT_EQ(KAVO_SUCCESS, insert(table, key, value, sizeof(value), 0, 0));
    };
    std::thread(fill, 1L).join();
    if (table < 1024) {
      fill(2);
    }
  }
  EXPECT_GT(MappedBytes() - before, 1'000'000'000) << "the tables are too small for the test to prove anything";
  EXPECT_EQ(0, dlclose(library));
  EXPECT_EQ(nullptr, dlopen(KAVO_LIBRARY, RTLD_NOW | RTLD_NOLOAD)) << "something keeps the library in the process";
}

TEST(Unload, DestroysTheTablesThatAreStillRegistered) {
  LoadUseAndUnload();  // the first round pays for what the process keeps, such as stacks
  const long before = MappedBytes();
  LoadUseAndUnload();
  EXPECT_LT(MappedBytes() - before, 100'000'000);
}

}  // namespace
