#include "explorer/explore.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "explorer/scheduler.h"
#include "support/seed.h"

namespace KavoExplorer {
namespace {

// Enough for most mistakes, in a few tenths of a second.
constexpr unsigned long long DEFAULT_SCHEDULES = KAVO_DEFAULT_SCHEDULES;

// All orders with up to so many preemptions, depth first.
//
// Another thread is tried in place of one that could go on only if it matters which of them goes first: if a later step
// of the other depends on the one that was taken. This is found out from the steps of each run, when it is over. (The
// first step since the thread was chosen is tried too: there the other may come at the cost of no preemption more.)
class BoundedSearch final : public Chooser {
 public:
  explicit BoundedSearch(unsigned bound) : m_bound(bound) {}

  unsigned Choose(const ChoicePoint& point) override {
    const std::size_t step = m_step++;
    const bool goesOn = point.running != NOBODY;
    const unsigned candidates = point.worthwhile != 0 ? point.worthwhile : point.enabled;
    const unsigned first = goesOn ? point.running : static_cast<unsigned>(std::countr_zero(candidates));
    const unsigned others = point.worthwhile & ~(1U << first);
    if (others == 0 || (goesOn && m_preemptions == m_bound)) {
      return first;
    }
    if (m_next == m_decisions.size()) {
      m_decisions.push_back({step, first, others, 0});
    }
    const unsigned chosen = m_decisions[m_next++].chosen;
    m_preemptions += goesOn && chosen != first ? 1 : 0;
    return chosen;
  }

  // Whether the run just over was the first of its kind: those with fewer preemptions were seen under a lower bound.
  bool IsNew() const noexcept { return m_preemptions == m_bound; }

  // Sets out for the next order; `steps` are those of the run just over. False when there is none.
  bool Advance(const std::vector<Step>& steps) {
    FindDependents(steps);
    m_step = 0;
    m_next = 0;
    m_preemptions = 0;
    while (!m_decisions.empty()) {
      Decision& last = m_decisions.back();
      if (const unsigned next = last.others & last.wanted; next != 0) {
        last.chosen = static_cast<unsigned>(std::countr_zero(next));
        last.others &= ~(1U << last.chosen);
        return true;
      }
      m_decisions.pop_back();
    }
    return false;
  }

 private:
  struct Decision {
    std::size_t step;
    unsigned chosen;
    unsigned others;  // not tried yet
    unsigned wanted;  // worth a try
  };
  struct Users {
    unsigned all = 0;
    unsigned changers = 0;
  };

  void FindDependents(const std::vector<Step>& steps) {
    m_users.clear();
    std::size_t decision = m_decisions.size();
    for (std::size_t i = steps.size(); i-- > 0;) {
      const Step& step = steps[i];
      unsigned dependents = 0;
      if (step.where != nullptr) {
        Users& users = m_users[step.where];
        const bool changed = step.before != step.after;
        dependents = (changed ? users.all : users.changers) & ~(1U << step.thread);
        users.all |= 1U << step.thread;
        users.changers |= changed ? 1U << step.thread : 0;
      }
      m_dependents =
          i + 1 < steps.size() && steps[i + 1].thread == step.thread ? m_dependents | dependents : dependents;
      if (decision > 0 && m_decisions[decision - 1].step == i) {
        Decision& here = m_decisions[--decision];
        const bool begins = i == 0 || steps[i - 1].thread != step.thread;
        const unsigned wanted = begins ? m_dependents : dependents;
        // One that could not take a step here may need any of the others to be able to.
        here.wanted |= (wanted & ~here.others) != 0 ? here.others : wanted;
      }
    }
  }

  const unsigned m_bound;
  std::vector<Decision> m_decisions;
  std::size_t m_step = 0;
  std::size_t m_next = 0;
  unsigned m_preemptions = 0;
  std::unordered_map<const void*, Users> m_users;  // of the steps behind the one looked at
  unsigned m_dependents = 0;                       // of the steps that its thread took from there on
};

// Preempts at some steps, anywhere in a run as long as the last one.
class RandomSearch final : public Chooser {
 public:
  explicit RandomSearch(unsigned long seed) : m_random(seed) {}

  void Begin(std::size_t steps) {
    m_step = 0;
    m_preemptAt.clear();
    for (unsigned long count = 2 + m_random() % 7; count > 0; --count) {
      m_preemptAt.push_back(m_random() % (steps + 1));
    }
  }

  unsigned Choose(const ChoicePoint& point) override {
    const std::size_t step = m_step++;
    unsigned candidates = point.enabled;
    if (point.running != NOBODY) {
      const bool preempts = std::find(m_preemptAt.begin(), m_preemptAt.end(), step) != m_preemptAt.end();
      candidates &= ~(1U << point.running);
      if (!preempts || candidates == 0) {
        return point.running;
      }
    }
    for (unsigned long passed = m_random() % static_cast<unsigned>(std::popcount(candidates)); passed > 0; --passed) {
      candidates &= candidates - 1;
    }
    return static_cast<unsigned>(std::countr_zero(candidates));
  }

 private:
  std::mt19937_64 m_random;
  std::size_t m_step = 0;
  std::vector<std::size_t> m_preemptAt;
};

// One given order. Where it ends, or does not fit, the running thread goes on.
class Replay final : public Chooser {
 public:
  explicit Replay(const std::string& schedule) {
    std::istringstream parts(schedule);
    unsigned thread = 0;
    char separator = 0;
    for (unsigned count = 0; parts >> thread >> separator >> count;) {
      m_threads.insert(m_threads.end(), count, thread);
    }
  }
  unsigned Choose(const ChoicePoint& point) override {
    const unsigned wanted = m_step < m_threads.size() ? m_threads[m_step] : NOBODY;
    ++m_step;
    if (wanted < NOBODY && (point.enabled >> wanted & 1U) != 0) {
      return wanted;
    }
    return point.running != NOBODY ? point.running : static_cast<unsigned>(std::countr_zero(point.enabled));
  }

 private:
  std::vector<unsigned> m_threads;
  std::size_t m_step = 0;
};

std::string ScheduleText(const std::vector<std::uint8_t>& choices) {
  std::ostringstream text;
  for (std::size_t i = 0; i < choices.size();) {
    std::size_t end = i;
    while (end < choices.size() && choices[end] == choices[i]) {
      ++end;
    }
    text << (i == 0 ? "" : " ") << unsigned{choices[i]} << 'x' << end - i;
    i = end;
  }
  return text.str();
}

std::string StepsText(const std::vector<Step>& steps, const ScenarioRun& run) {
  static constexpr const char* NAMES[] = {"start",    "load",   "store",       "update",        "lock",
                                          "try lock", "unlock", "lock shared", "unlock shared", "pause"};
  const char* points[MAX_THREADS] = {};
  std::ostringstream text;
  for (const Step& step : steps) {
    text << "  thread " << step.thread << "  " << NAMES[static_cast<unsigned>(step.op)] << ' '
         << (step.where == nullptr ? std::string() : run.NameOf(step.where)) << std::hex;
    if (step.op == Op::LOAD || step.op == Op::STORE || step.op == Op::UPDATE) {
      text << "  " << step.before;
      if (step.op != Op::LOAD) {
        text << " -> " << step.after;
      }
    }
    text << std::dec;
    if (step.point != points[step.thread]) {
      points[step.thread] = step.point;
      text << "   (after " << step.point << ')';
    }
    text << '\n';
  }
  return text.str();
}

class Exploration {
 public:
  explicit Exploration(const std::function<std::unique_ptr<ScenarioRun>()>& make) : m_make(make) {}

  std::string Explore() {
    if (const char* const schedule = std::getenv("KAVO_EXPLORE_REPLAY")) {
      Replay replay(schedule);
      Run(replay);
      return m_failure;
    }
    const auto begin = std::chrono::steady_clock::now();
    const char* const given = std::getenv("KAVO_EXPLORE_SCHEDULES");
    const unsigned long long budget = given != nullptr ? std::strtoull(given, nullptr, 10) : DEFAULT_SCHEDULES;
    // A quarter is for random orders, where there are more than the budget holds.
    const bool isAll = RunBounded(budget - budget / 4);
    if (m_failure.empty() && !isAll) {
      RunRandom(budget);
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    std::printf("explored %llu schedules in %.1f s, among them all with fewer than %u preemptions%s\n", m_schedules,
                seconds.count(), m_complete, isAll ? ": there are no others" : "");
    return m_failure;
  }

 private:
  // False when the run breaks a promise. One whose threads cannot go on ends the process: they use all that is here.
  bool Run(Chooser& chooser) {
    const std::unique_ptr<ScenarioRun> run = m_make();
    std::string failure = m_scheduler.Run(run->threads, chooser);
    if (failure.empty()) {
      failure = run->Check();
    }
    if (!failure.empty()) {
      m_failure = failure + "\nschedule, for KAVO_EXPLORE_REPLAY: \"" + ScheduleText(m_scheduler.Choices()) + "\"\n" +
                  StepsText(m_scheduler.Steps(), *run);
    }
    if (m_scheduler.IsStuck()) {
      std::fputs(m_failure.c_str(), stderr);
      std::_Exit(1);
    }
    return failure.empty();
  }

  // Bound by bound, as far as the budget reaches. Counts each order once. True when there are no others.
  bool RunBounded(unsigned long long budget) {
    unsigned long long before = 0;
    do {
      before = m_schedules;
      BoundedSearch search(m_complete);
      do {
        if (m_schedules >= budget || !Run(search)) {
          return false;
        }
        m_schedules += search.IsNew() ? 1 : 0;
      } while (search.Advance(m_scheduler.Steps()));
      ++m_complete;
    } while (m_schedules > before);
    return true;
  }

  void RunRandom(unsigned long long budget) {
    RandomSearch search(KavoTest::TestSeed());
    for (bool holds = true; holds && m_schedules < budget; ++m_schedules) {
      search.Begin(m_scheduler.Choices().size());
      holds = Run(search);
    }
  }

  const std::function<std::unique_ptr<ScenarioRun>()>& m_make;
  Scheduler m_scheduler;
  unsigned long long m_schedules = 0;
  unsigned m_complete = 0;  // all orders with fewer preemptions than this were seen
  std::string m_failure;
};

}  // namespace

std::string Explore(const std::function<std::unique_ptr<ScenarioRun>()>& make) {
  return Exploration(make).Explore();
}

void ExpectHolds(const std::function<std::unique_ptr<ScenarioRun>()>& make) {
  if (const std::string failure = Explore(make); !failure.empty()) {
    ADD_FAILURE() << failure;
  }
}

}  // namespace KavoExplorer
