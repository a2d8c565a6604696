// Serves requests from a loaded snapshot, from several threads, and checks each row that it gives.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <vector>

#include "serving/rounds.h"

namespace Serving {

inline constexpr std::size_t REQUEST_KEYS = 200;

// What the threads of a phase saw, together.
struct Tally {
  std::vector<std::uint32_t> nanoseconds;  // each request's
  double seconds = 0.0;
  std::uint64_t rows = 0;
  std::uint64_t torn = 0;     // rows of unequal coordinates
  std::uint64_t missing = 0;  // keys of an applied snapshot without a row
  std::uint64_t stale = 0;    // rows trained less often than the applied snapshot says
  std::exception_ptr failure;

  std::uint64_t Wrong() const { return torn + missing + stale; }
  // In microseconds. Takes the requests into another order.
  double Quantile(double share);
};

class Server {
 public:
  // Loads the newest snapshot, which is that of round 0.
  Server(const Plan& plan, const char* folder);

  // Applies the increments that have arrived. Beside Serve, from one thread.
  void Update();
  unsigned Round() const { return m_round.load(); }
  std::uint64_t Growths() const { return Examples::StatsOf(m_embedding).table.growths; }

  // Serves from `threads` threads for as long as during() takes.
  Tally Serve(unsigned threads, const std::function<void()>& during) const;

  // Whether all rows of the round that is applied are there, and nothing else is.
  void CheckAllRows() const;

 private:
  void Request(std::uint64_t& state, Tally& tally) const;
  void Check(const std::vector<std::uint64_t>& numbers, unsigned round, Tally& tally) const;

  const Plan m_plan;
  const char* const m_folder;
  unsigned long long m_first = 0;    // number of the snapshot of round 0
  std::atomic<unsigned> m_round{0};  // whose snapshot is applied: what a request must see at least
  Examples::Embedding m_embedding;
};

}  // namespace Serving
