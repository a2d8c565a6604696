// Threads whose log lines one statement bounds.
#include <gtest/gtest.h>

#include "explorer/explore.h"
#include "platform/atomic.h"
#include "platform/log_bound.h"

namespace KavoExplorer {
namespace {

// Eight of ten lines have been written; each thread offers two more and reports.
class BoundRun final : public ScenarioRun {
 public:
  BoundRun() {
    for (int i = 0; i < 8; ++i) {
      m_bound.Admit(m_site, 1);
    }
    threads = {[this] { OfferTwo(); }, [this] { OfferTwo(); }};
  }

  std::string Check() override {
    if (m_admitted.load() != 2) {
      return "not as many lines as the bound allows";
    }
    const unsigned long long last = Qen::LogBound::TakeUnreported(m_site, Qen::LogBound::FINAL_REPORT);
    return m_reported.load() + last == 2 ? "" : "a held-back line is not reported, or twice";
  }

 private:
  void OfferTwo() {
    for (int i = 0; i < 2; ++i) {
      m_admitted.fetch_add(m_bound.Admit(m_site, 1) ? 1 : 0);
    }
    m_reported.fetch_add(Qen::LogBound::TakeUnreported(m_site, Qen::LogBound::FINAL_REPORT));
  }

  const Qen::LogBound m_bound{1};
  Qen::LogSite& m_site = *new Qen::LogSite;  // stays: one that has held a line back is in a list for good
  Qen::Atomic<unsigned long long> m_admitted{0};
  Qen::Atomic<unsigned long long> m_reported{0};
};

TEST(LogScenarios, TwoThreadsReachTheBound) {
  ExpectHolds([] { return std::make_unique<BoundRun>(); });
}

}  // namespace
}  // namespace KavoExplorer
