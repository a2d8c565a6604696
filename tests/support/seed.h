// The seed of a random test: printed, and taken from KAVO_TEST_SEED to repeat a run.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>

namespace KavoTest {

inline unsigned long TestSeed() {
  const char* given = std::getenv("KAVO_TEST_SEED");
  const unsigned long seed = given != nullptr ? std::strtoul(given, nullptr, 10) : std::random_device{}();
  std::printf("KAVO_TEST_SEED=%lu\n", seed);
  return seed;
}

}  // namespace KavoTest
