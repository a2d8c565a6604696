// Work that several threads begin at the same moment.
#pragma once

#include <cstddef>
#include <latch>
#include <thread>
#include <vector>

namespace KavoTest {

// Runs work(0) ... work(threads - 1) at once; returns when all have ended.
template <class Work>
void InThreads(unsigned threads, const Work& work) {
  std::latch ready(static_cast<std::ptrdiff_t>(threads));
  std::vector<std::jthread> running;
  for (unsigned i = 0; i < threads; ++i) {
    running.emplace_back([&, i] {
      ready.arrive_and_wait();
      work(i);
    });
  }
}

}  // namespace KavoTest
