// Random sequences of all functions of tables, on one thread, against the reference model. A failing sequence is made
// as short and simple as possible before it is printed; the printed seed repeats a run.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "model/call_runner.h"
#include "support/seed.h"

namespace {

using namespace KavoTest;

constexpr int PARTS = 4;

// In each part; KAVO_MODEL_SEQUENCES overrides what the build has set.
int SequenceCount() {
  const char* const given = std::getenv("KAVO_MODEL_SEQUENCES");
  return given != nullptr ? std::atoi(given) : KAVO_DEFAULT_MODEL_SEQUENCES;
}

// Half as many calls as RapidCheck would take, of any bytes from the first one on.
Sequence AnySequence() {
  using CallBytes = std::array<unsigned char, CALL_BYTES>;
  const auto calls = *rc::gen::scale(
      0.5, rc::gen::container<std::vector<CallBytes>>(rc::gen::resize(100, rc::gen::arbitrary<CallBytes>())));
  return DecodeCalls(calls.empty() ? nullptr : calls[0].data(), calls.size() * CALL_BYTES);
}

class Model : public testing::TestWithParam<int> {};

TEST_P(Model, EverySequenceOfCallsGivesWhatTheReferenceModelSays) {
  t_statistics = {};
  unsigned sequences = 0;
  unsigned grewThrice = 0;
  unsigned hadMaps = 0;
  const auto property = [&] {
    const Sequence sequence = AnySequence();
    const LineCounts before = CountedLines();
    CallRunner runner;
    try {
      for (const Call& call : sequence) {
        runner.Run(call);
      }
      runner.Finish();
    } catch (const Mismatch& mismatch) {
      RC_LOG() << testing::PrintToString(sequence) << '\n';
      RC_FAIL(mismatch.what());
    }
    ++sequences;
    grewThrice += CountedLines().growths >= before.growths + 3 ? 1 : 0;
    hadMaps += CountedLines().mapMisses > before.mapMisses ? 1 : 0;
  };

  const int count = SequenceCount();
  rc::detail::TestMetadata metadata;
  metadata.id = "Model/" + std::to_string(GetParam());
  rc::detail::TestParams params;
  params.seed = TestSeed() + static_cast<unsigned long>(GetParam());
  params.maxSuccess = count;
  const auto result = rc::detail::checkTestable(property, metadata, params);
  rc::detail::printResultMessage(result, std::cout);
  std::cout << std::endl;
  ASSERT_TRUE(result.is<rc::detail::SuccessResult>());

  std::printf("%u sequences: %u grew a table 3 times or more, %u met an overflow map\n", sequences, grewThrice,
              hadMaps);
  for (unsigned i = 0; i < EXPORTED_COUNT; ++i) {
    std::printf("%-24s %9lu succeeded %9lu failed\n", NameOf(static_cast<Function>(i)), t_statistics.succeeded[i],
                t_statistics.failed[i]);
  }
  // What the decoder's weights are for. Far below what they give, and far above nothing.
  ASSERT_GE(sequences, static_cast<unsigned>(count));
  EXPECT_GE(grewThrice, sequences / 5);
  EXPECT_GE(hadMaps, sequences / 20);
  for (unsigned i = 0; i < EXPORTED_COUNT; ++i) {
    EXPECT_GE(t_statistics.succeeded[i], sequences / 100) << NameOf(static_cast<Function>(i));
    EXPECT_GE(t_statistics.failed[i], sequences / 100) << NameOf(static_cast<Function>(i));
  }
}

INSTANTIATE_TEST_SUITE_P(Parts, Model, testing::Range(0, PARTS));

}  // namespace
