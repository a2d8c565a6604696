// Work that several threads begin at the same moment, and what holds one of them up.
#pragma once

#include <unistd.h>

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

// Holds the calling thread up now and then, to be called at test points of the library: of `sides` throws of the dice,
// `moments` hold it up for a moment and one for `microseconds`.
template <class Random>
void HoldUpNowAndThen(Random& random, unsigned sides, unsigned moments, unsigned microseconds) {
  const unsigned dice = static_cast<unsigned>(random() % sides);
  if (dice < moments) {
    std::this_thread::yield();
  } else if (dice == moments) {
    ::usleep(microseconds);
  }
}

}  // namespace KavoTest
