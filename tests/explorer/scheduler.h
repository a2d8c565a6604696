// Runs the threads of a scenario one step at a time, in an order that somebody else chooses.
//
// A step is one access to an atomic, one operation on a lock, or one pause. The library's aliases for these
// (platform/atomic.h, mutex.h, wait.h) lead here in a build with KAVO_EXPLORER. A thread stops before each step, so
// what it is about to do is known when the next thread is chosen. Threads are real ones, and exactly one of them has
// the baton at any time; so every run is sequentially consistent, and scheduler and scenarios need no locks of their
// own.
//
// WHO CAN TAKE A STEP
//   before a lock       when the lock is free
//   in a pause          when another thread has changed something that this one has read since its last pause. Had
//                       nobody done so, it would only go once more round its loop.
//   otherwise           always
//   When nobody can, they wait for ever: that is a deadlock, and it is reported. What the library limits by a number of
//   sleeps has no limit here.
//
// WHO IS WORTH A STEP. A thread that was preempted is asleep until another has taken a step that its pending one
// depends on. To wake it earlier would only repeat an order in which it had taken that step before it was preempted.
//
// Objects with static storage (counters of the testing build, log sites) take no part: what they hold is no business of
// a scenario, and differs from run to run.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace KavoExplorer {

inline constexpr unsigned MAX_THREADS = 4;
inline constexpr unsigned NOBODY = MAX_THREADS;

enum class Op : std::uint8_t { START, LOAD, STORE, UPDATE, LOCK, TRY_LOCK, UNLOCK, LOCK_SHARED, UNLOCK_SHARED, PAUSE };

bool MayWrite(Op op) noexcept;

struct LockState {
  unsigned readers = 0;
  bool writer = false;
};

// For the step list of a run that failed.
struct Step {
  unsigned thread;
  Op op;
  const void* where;
  std::uint64_t before;
  std::uint64_t after;
  const char* point;  // the last test point that the thread has passed, or null
};

// Who may be chosen for the next step. `running` is the thread that would go on, NOBODY if the last one cannot.
struct ChoicePoint {
  unsigned running;
  unsigned enabled;     // bit i: thread i can take a step
  unsigned worthwhile;  // those of them that are not asleep
};

class Chooser {
 public:
  virtual ~Chooser() = default;
  virtual unsigned Choose(const ChoicePoint& point) = 0;  // one of the enabled
};

class Worker;

class Scheduler {
 public:
  Scheduler();
  ~Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Runs the bodies, each on a thread of its own, to their end. Empty, or what went wrong.
  std::string Run(const std::vector<std::function<void()>>& bodies, Chooser& chooser);

  // Threads of the last run could not end. They stay where they are for ever, and use what they use.
  bool IsStuck() const noexcept;

  // Of the last run: its steps, and who was chosen for each. (A run that failed may lack the last steps.)
  const std::vector<Step>& Steps() const noexcept { return m_steps; }
  const std::vector<std::uint8_t>& Choices() const noexcept { return m_choices; }

 private:
  friend class Worker;
  friend bool BeginStep(Op op, const void* where, const LockState* lock) noexcept;
  friend void EndStep(std::uint64_t before, std::uint64_t after) noexcept;

  static constexpr std::size_t MAX_STEPS = 20'000;

  void PassBaton(Worker* self);
  void Stop(std::string failure);
  Worker& TheWorker(unsigned index);
  void Note(Worker& self, std::uint64_t before, std::uint64_t after);

  std::vector<std::unique_ptr<Worker>> m_workers;
  unsigned m_threadCount = 0;
  Chooser* m_chooser = nullptr;
  std::string m_failure;
  std::vector<Step> m_steps;
  std::vector<std::uint8_t> m_choices;
  std::unordered_map<const void*, std::array<std::uint32_t, MAX_THREADS>> m_readAt;  // when which thread read a place
  std::atomic<bool> m_over{false};
};

// The calling thread is about to take a step. False when it is none of a scenario's: then there is no EndStep either.
bool BeginStep(Op op, const void* where, const LockState* lock = nullptr) noexcept;
// It has taken it. Equal values: nothing was changed.
void EndStep(std::uint64_t before, std::uint64_t after) noexcept;

// A pause of a scenario's thread. False when the calling thread is none.
bool PauseStep() noexcept;

// Installs itself as the handler of test points, for the step lists; `atPoint` is called, if set, with each that a
// scenario's thread passes, and may throw what a lock might.
void WatchTestPoints(std::function<void(unsigned thread, const char* point)> atPoint = {});

}  // namespace KavoExplorer
