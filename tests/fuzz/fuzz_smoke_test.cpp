// The fuzzer's entry point under any compiler: a few hundred byte strings, the same in every run.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "fuzz/call_decoder.h"
#include "fuzz/fuzz_calls.h"

namespace {

using namespace KavoTest;

std::vector<unsigned char> StringOf(std::mt19937& random) {
  std::vector<unsigned char> bytes(random() % 800);
  for (unsigned char& byte : bytes) {
    byte = static_cast<unsigned char>(random());
  }
  return bytes;
}

TEST(FuzzSmoke, ByteStringsReachEveryFunctionAndAgreeWithTheReferenceModel) {
  std::mt19937 random(20231107);
  const auto run = [](const std::vector<unsigned char>& bytes) {
    ASSERT_EQ(0, LLVMFuzzerTestOneInput(bytes.data(), bytes.size()));
  };
  run({});
  for (int i = 0; i < 600; ++i) {
    run(StringOf(random));
  }
  // What keeps the decoder from rotting: each function is reached, with success and with failure, and tables grow.
  const CallStatistics& done = FuzzStatistics();
  for (unsigned i = 0; i < EXPORTED_COUNT; ++i) {
    EXPECT_GE(done.succeeded[i], 10U) << NameOf(static_cast<Function>(i));
    EXPECT_GE(done.failed[i], 10U) << NameOf(static_cast<Function>(i));
  }
  EXPECT_GE(done.growths, 100U);
}

TEST(FuzzSmoke, NoByteStringDecodesToMoreThanASmallSequence) {
  std::mt19937 random(4711);
  for (int i = 0; i < 100; ++i) {
    std::vector<unsigned char> bytes(1 + random() % 5000, static_cast<unsigned char>(random()));
    unsigned repetitions = 0;
    const Sequence sequence = DecodeCalls(bytes.data(), bytes.size());
    for (const Call& call : sequence) {
      repetitions += call.count;
      EXPECT_TRUE(call.function != Function::INIT_TABLE || call.number <= 1021 || call.valueLen == 4294967291U);
      EXPECT_TRUE(call.function != Function::INIT_TABLE || call.valueLen <= 64 || call.valueLen >= 4294967291U);
    }
    EXPECT_LE(sequence.size(), 66U);
    EXPECT_LE(repetitions, 1000U);
  }
}

}  // namespace
