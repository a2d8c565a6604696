// Makes the calls that a byte string stands for, on the library and on the reference model. A difference between the
// two ends the process, after the sequence that led to it, as does whatever a sanitizer finds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>

#include "model/call_runner.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
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
  return 0;
}
