// Makes the calls that a byte string stands for, on the library and on the reference model. A difference between the
// two ends the process, after the sequence that led to it, as does whatever a sanitizer finds.
#include "fuzz/fuzz_calls.h"

#include <cstdlib>
#include <iostream>

#include "fuzz/call_decoder.h"

namespace {

KavoTest::CallStatistics g_statistics;

}  // namespace

const KavoTest::CallStatistics& KavoTest::FuzzStatistics() {
  return g_statistics;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const KavoTest::Sequence sequence = KavoTest::DecodeCalls(data, size);
  KavoTest::CallRunner runner;
  try {
    for (const KavoTest::Call& call : sequence) {
      runner.Run(call);
    }
    runner.Finish();
  } catch (const KavoTest::Mismatch& mismatch) {
    for (const KavoTest::Call& call : sequence) {
      std::cerr << call << '\n';
    }
    std::cerr << "mismatch: " << mismatch.what() << std::endl;
    std::abort();
  }
  g_statistics.Add(runner.Statistics());
  return 0;
}
