#include "serving/rounds.h"

#include <algorithm>
#include <chrono>
#include <span>
#include <thread>
#include <vector>

#include "pseudo_random.h"

namespace Serving {

using PseudoRandom::Mix;

bool Plan::IsTrained(std::uint64_t number, unsigned round) const {
  const bool isNew = number < Known(round) && (round == 0 || number >= Known(round - 1));
  return isNew || (number < Known(round) && Mix(number ^ Mix(round)) % 10 == 0);
}

unsigned Plan::TimesTrained(std::uint64_t number, unsigned round) const {
  unsigned times = 0;
  for (unsigned r = 0; r <= round; ++r) {
    times += IsTrained(number, r) ? 1 : 0;
  }
  return times;
}

long KeyOf(std::uint64_t number) {
  return static_cast<long>(Mix(number));
}

void TrainRounds(const Plan& plan, const char* folder, unsigned first, unsigned last, double pauseSeconds) {
  constexpr std::size_t BATCH = 4096;
  KavoEmbeddingOptions options = Examples::Defaults(plan.dim, KAVO_OPTIMISER_SGD);
  options.initialiser = KAVO_START_ZEROS;
  options.expected = plan.rows;
  options.threads = 1;
  options.rates.learningRate = 1.0;
  const Examples::Embedding embedding = Examples::Make(options);
  const KavoSnapshotItem item = Examples::Item("rows", embedding);
  if (first > 0) {
    Examples::Check(KavoSnapshotLoad(folder, 0, &item, 1, 0, 1, nullptr, nullptr));
  }
  std::vector<float> rows(BATCH * plan.dim);
  const std::vector<float> gradients(BATCH * plan.dim, -1.0F);
  for (unsigned round = first; round <= last; ++round) {
    std::vector<long> keys;
    for (std::uint64_t number = 0; number < plan.Known(round); ++number) {
      if (plan.IsTrained(number, round)) {
        keys.push_back(KeyOf(number));
      }
    }
    for (std::size_t begin = 0; begin < keys.size(); begin += BATCH) {
      const auto batch = std::span(keys).subspan(begin, std::min(BATCH, keys.size() - begin));
      Examples::Check(KavoEmbeddingForward(embedding.get(), batch.data(), batch.size(), nullptr, rows.data(), nullptr));
      Examples::Check(
          KavoEmbeddingBackward(embedding.get(), batch.data(), batch.size(), gradients.data(), 1.0F, nullptr));
    }
    const unsigned kind = round == 0 ? KAVO_SNAPSHOT_FULL : KAVO_SNAPSHOT_INCREMENT;
    const KavoSaveOptions save{sizeof(save), kind, 1, 2, 0};
    Examples::Check(KavoSnapshotSave(folder, &save, &item, 1, nullptr, 0, nullptr, nullptr, nullptr));
    std::this_thread::sleep_for(std::chrono::duration<double>(pauseSeconds));
  }
}

}  // namespace Serving
