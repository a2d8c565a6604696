#include "serving/server.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>

#include "program.h"
#include "pseudo_random.h"

namespace Serving {

double Tally::Quantile(double share) {
  if (nanoseconds.empty()) {
    return 0.0;
  }
  const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(nanoseconds.size() - 1));
  std::nth_element(nanoseconds.begin(), nanoseconds.begin() + rank, nanoseconds.end());
  return nanoseconds[static_cast<std::size_t>(rank)] / 1e3;
}

Server::Server(const Plan& plan, const char* folder) : m_plan(plan), m_folder(folder) {
  KavoEmbeddingOptions options = Examples::Defaults(plan.dim, KAVO_OPTIMISER_NONE);
  options.expected = plan.rows;
  options.growth = KAVO_REHASH_GRADUAL;
  options.threads = 1;
  m_embedding = Examples::Make(options);
  const KavoSnapshotItem item = Examples::Item("rows", m_embedding);
  m_first = Examples::NewestIn(folder).number;
  Examples::Check(KavoSnapshotLoad(folder, m_first, &item, 1, 0, 1, nullptr, nullptr));
}

void Server::Update() {
  const KavoSnapshotItem item = Examples::Item("rows", m_embedding);
  unsigned long long number = 0;  // the newest
  Examples::Check(KavoSnapshotUpdate(m_folder, &number, &item, 1, nullptr, nullptr));
  m_round = static_cast<unsigned>(number - m_first);  // a snapshot for each round
}

Tally Server::Serve(unsigned threads, const std::function<void()>& during) const {
  std::vector<Tally> tallies(threads);
  const auto start = std::chrono::steady_clock::now();
  {
    std::vector<std::jthread> running;
    for (unsigned i = 0; i < threads; ++i) {
      running.emplace_back([this, i, &tally = tallies[i]](const std::stop_token& stop) {
        try {
          std::uint64_t state = PseudoRandom::Mix(i);
          while (!stop.stop_requested()) {
            Request(state, tally);
          }
        } catch (...) {
          tally.failure = std::current_exception();
        }
      });
    }
    during();
  }  // stops them
  Tally sum;
  sum.seconds = Examples::SecondsSince(start);
  for (const Tally& tally : tallies) {
    if (tally.failure) {
      std::rethrow_exception(tally.failure);
    }
    sum.nanoseconds.insert(sum.nanoseconds.end(), tally.nanoseconds.begin(), tally.nanoseconds.end());
    sum.rows += tally.rows;
    sum.torn += tally.torn;
    sum.missing += tally.missing;
    sum.stale += tally.stale;
  }
  return sum;
}

// Of keys of the round that is applied, and of the next, which may be arriving.
void Server::Request(std::uint64_t& state, Tally& tally) const {
  const unsigned round = m_round.load();
  std::vector<std::uint64_t> numbers(REQUEST_KEYS);
  std::ranges::generate(numbers, [&] { return PseudoRandom::Mix(++state) % m_plan.Known(round + 1); });
  Check(numbers, round, tally);
}

void Server::Check(const std::vector<std::uint64_t>& numbers, unsigned round, Tally& tally) const {
  std::vector<long> keys(numbers.size());
  std::ranges::transform(numbers, keys.begin(), KeyOf);
  std::vector<float> rows(numbers.size() * m_plan.dim);
  std::vector<unsigned char> found(numbers.size());
  const auto start = std::chrono::steady_clock::now();
  Examples::Check(KavoEmbeddingLookup(m_embedding.get(), keys.data(), keys.size(), KAVO_ABSENT_ZEROS, nullptr,
                                      rows.data(), found.data()));
  const std::chrono::nanoseconds taken = std::chrono::steady_clock::now() - start;
  tally.nanoseconds.push_back(
      static_cast<std::uint32_t>(std::min<long>(taken.count(), std::numeric_limits<std::uint32_t>::max())));
  tally.rows += numbers.size();
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const std::span<const float> row(&rows[i * m_plan.dim], m_plan.dim);
    const bool due = numbers[i] < m_plan.Known(round);
    tally.torn += std::ranges::all_of(row, [&](float x) { return x == row[0]; }) ? 0 : 1;
    tally.missing += due && found[i] == 0 ? 1 : 0;
    // A row that is there was trained at least once, whether its round is applied or arriving.
    const auto least = static_cast<float>(due ? m_plan.TimesTrained(numbers[i], round) : 1);
    tally.stale += found[i] != 0 && row[0] < least ? 1 : 0;
  }
}

void Server::CheckAllRows() const {
  Tally tally;
  std::vector<std::uint64_t> numbers;
  for (std::uint64_t number = 0; number < m_plan.Known(Round()); ++number) {
    numbers.push_back(number);
  }
  Check(numbers, Round(), tally);
  const std::uint64_t rows = Examples::StatsOf(m_embedding).rows;
  if (tally.Wrong() != 0 || rows != numbers.size()) {
    throw std::runtime_error(fmt::format("of {} rows {} are there, {} missing, {} torn, {} stale", numbers.size(), rows,
                                         tally.missing, tally.torn, tally.stale));
  }
}

}  // namespace Serving
