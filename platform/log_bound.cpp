#include "platform/log_bound.h"

#include "platform/log.h"

namespace Qen {
namespace {

// The statements that have held back a line. They are summed when somebody asks, so that two statements in a flood do
// not meet in one counter.
constinit Atomic<LogSite*> g_sites{nullptr};

void CountHeldBack(LogSite& site) noexcept {
  // Relaxed: a count orders nothing.
  if (site.heldBack.fetch_add(1, std::memory_order_relaxed) != 0) {
    return;
  }
  // Relaxed: `head` is only compared, and becomes visible with the release below.
  LogSite* head = g_sites.load(std::memory_order_relaxed);
  do {
    site.next = head;
    // Release: whoever finds the site in the list reads its `next`. Relaxed on failure, as above.
  } while (!g_sites.compare_exchange_weak(head, &site, std::memory_order_release, std::memory_order_relaxed));
}

}  // namespace

bool LogBound::Admit(LogSite& site, unsigned long long nowNs) const noexcept {
  // Relaxed, here and below: the word guards no other memory.
  unsigned long long paidUntil = site.paidUntilNs.load(std::memory_order_relaxed);
  unsigned long long next = 0;
  do {
    if (paidUntil > nowNs + m_debtNs) {
      CountHeldBack(site);
      return false;
    }
    next = (paidUntil > nowNs ? paidUntil : nowNs) + m_lineNs;
  } while (!site.paidUntilNs.compare_exchange_weak(paidUntil, next, std::memory_order_relaxed));
  return true;
}

unsigned long long LogBound::TakeUnreported(LogSite& site, unsigned long long nowNs) noexcept {
  // Acquire: pairs with the release below, so that heldBack is read no older than by the one who reported last.
  unsigned long long reported = site.reported.load(std::memory_order_acquire);
  // Relaxed: a count; what it misses is reported later.
  const unsigned long long heldBack = site.heldBack.load(std::memory_order_relaxed);
  if (heldBack == reported) {
    return 0;
  }
  // Relaxed: the time only spaces the reports; of two threads that pass here at once `reported` chooses one.
  if (nowNs < site.nextReportNs.load(std::memory_order_relaxed)) {
    return 0;
  }
  // Release: see above. Relaxed on failure: another thread has these lines, and nothing was taken.
  if (!site.reported.compare_exchange_strong(reported, heldBack, std::memory_order_release,
                                             std::memory_order_relaxed)) {
    return 0;
  }
  site.nextReportNs.store(nowNs + REPORT_INTERVAL_NS, std::memory_order_relaxed);
  return heldBack - reported;
}

void LogBound::ReportHeldBack(unsigned long long nowNs, Report report) noexcept {
  // Acquire: pairs with the release of CountHeldBack.
  for (LogSite* site = g_sites.load(std::memory_order_acquire); site != nullptr; site = site->next) {
    if (const unsigned long long count = TakeUnreported(*site, nowNs); count != 0) {
      report(*site, count);
    }
  }
}

unsigned long long LogLinesHeldBack() noexcept {
  unsigned long long sum = 0;
  // Acquire: pairs with the release of CountHeldBack.
  for (const LogSite* site = g_sites.load(std::memory_order_acquire); site != nullptr; site = site->next) {
    // Relaxed: a count orders nothing.
    sum += site->heldBack.load(std::memory_order_relaxed);
  }
  return sum;
}

}  // namespace Qen
