// The bound on each log statement under the default writer: N lines a second, and ten seconds' worth at once.
//
// A statement owes the time 1/N for every line that it writes and may be ten seconds in debt. One word, moved by
// compare-exchange, holds all of that; a line beyond the bound costs one load and one increment. The caller passes the
// time, so that a flood costs a coarse clock only and a test needs no clock at all. Any number of threads may be inside
// for one statement.
#pragma once

#include "platform/log_site.h"

namespace Qen {

class LogBound {
 public:
  static constexpr unsigned long long SECOND_NS = 1'000'000'000;
  static constexpr unsigned long long DEFAULT_RATE = 100;
  static constexpr unsigned long long BURST_SECONDS = 10;
  // What a statement holds back is reported no more often than this.
  static constexpr unsigned long long REPORT_INTERVAL_NS = SECOND_NS / 10;

  // 0 lines a second means no bound. What exceeds the clock's resolution means one line a nanosecond.
  constexpr explicit LogBound(unsigned long long linesPerSecond) noexcept {
    if (linesPerSecond != 0) {
      const unsigned long long rate = linesPerSecond < SECOND_NS ? linesPerSecond : SECOND_NS;
      m_lineNs = SECOND_NS / rate;
      m_debtNs = m_lineNs * (rate * BURST_SECONDS - 1);
    }
  }

  bool Limits() const noexcept { return m_lineNs != 0; }

  // Whether the statement may write a log line now. If not, the log line has been counted as held back.
  bool Admit(LogSite& site, unsigned long long nowNs) const noexcept;

  // How many log lines the statement has held back that were not reported, or 0 while it is too early to report. Each
  // is handed out once, whichever threads ask. `nowNs` may be FINAL_REPORT, for which it is never too early.
  static constexpr unsigned long long FINAL_REPORT = ~0ULL;
  static unsigned long long TakeUnreported(LogSite& site, unsigned long long nowNs) noexcept;

  // Calls `report` for each statement that has some, of all that ever held back a log line.
  using Report = void (*)(const LogSite& site, unsigned long long count) noexcept;
  static void ReportHeldBack(unsigned long long nowNs, Report report) noexcept;

 private:
  unsigned long long m_lineNs = 0;
  unsigned long long m_debtNs = 0;
};

}  // namespace Qen
