// Holds a thread up now and then, for a moment or for a time slice: to be called at the library's test points.
#pragma once

#include <unistd.h>

#include <thread>

namespace KavoTest {

// Of `sides` throws of the dice, `moments` hold the thread up for a moment and one for `microseconds`.
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
