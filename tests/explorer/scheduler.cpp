#include "explorer/scheduler.h"

#include <algorithm>
#include <exception>
#include <thread>
#include <utility>

#include "platform/test_hooks.h"

extern "C" {
extern char __data_start;
extern char _end;
}

namespace KavoExplorer {
namespace {

bool HasStaticStorage(const void* where) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(where);
  return address >= reinterpret_cast<std::uintptr_t>(&__data_start) &&
         address < reinterpret_cast<std::uintptr_t>(&_end);
}

constinit thread_local Worker* t_worker = nullptr;
std::function<void(unsigned, const char*)> g_atPoint;

}  // namespace

bool MayWrite(Op op) noexcept {
  return op != Op::LOAD && op != Op::START && op != Op::PAUSE;
}

// A thread that runs one body after the other. All but the baton is touched by whoever has the baton.
class Worker {
 public:
  Worker(Scheduler& scheduler, unsigned workerIndex)
      : owner(scheduler), index(workerIndex), m_thread([this] { Serve(); }) {}
  ~Worker() {
    m_body = nullptr;
    GiveBaton();
    m_thread.join();
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void Prepare(const std::function<void()>& body) {
    m_body = &body;
    op = Op::START;
    where = nullptr;
    lock = nullptr;
    point = nullptr;
    finished = asleep = changeSeen = false;
    pausedAt = 0;
  }
  bool CanStep() const noexcept {
    switch (op) {
      case Op::LOCK:
        return !lock->writer && lock->readers == 0;
      case Op::LOCK_SHARED:
        return !lock->writer;
      case Op::PAUSE:
        return changeSeen;
      default:
        return !finished;
    }
  }
  void GiveBaton() noexcept {
    m_baton.store(true, std::memory_order_release);
    m_baton.notify_one();
  }
  void AwaitBaton() noexcept {
    m_baton.wait(false, std::memory_order_acquire);
    m_baton.store(false, std::memory_order_relaxed);
  }

  Scheduler& owner;
  const unsigned index;
  // The pending step.
  Op op = Op::START;
  const void* where = nullptr;
  const LockState* lock = nullptr;

  const char* point = nullptr;
  bool finished = true;
  bool asleep = false;
  bool changeSeen = false;  // something that it has read since its last pause
  std::uint32_t pausedAt = 0;

 private:
  void Serve() {
    for (;;) {
      AwaitBaton();
      if (m_body == nullptr) {
        return;
      }
      owner.m_steps.push_back({index, Op::START, nullptr, 0, 0, nullptr});
      t_worker = this;
      try {
        (*m_body)();
      } catch (const std::exception& error) {
        if (owner.m_failure.empty()) {
          owner.m_failure = std::string("a thread ended with an exception: ") + error.what();
        }
      }
      t_worker = nullptr;
      finished = true;
      op = Op::START;
      owner.PassBaton(nullptr);
    }
  }

  const std::function<void()>* m_body = nullptr;
  std::atomic<bool> m_baton{false};
  std::thread m_thread;  // last: it uses the rest
};

namespace {

void PassTestPoint(const char* point) {
  if (t_worker != nullptr) {
    t_worker->point = point;
    if (g_atPoint) {
      g_atPoint(t_worker->index, point);
    }
  }
}

}  // namespace

Scheduler::Scheduler() = default;
Scheduler::~Scheduler() = default;

bool Scheduler::IsStuck() const noexcept {
  return std::any_of(m_workers.begin(), m_workers.end(), [](const auto& worker) { return !worker->finished; });
}

Worker& Scheduler::TheWorker(unsigned index) {
  while (m_workers.size() <= index) {
    m_workers.push_back(std::make_unique<Worker>(*this, static_cast<unsigned>(m_workers.size())));
  }
  return *m_workers[index];
}

std::string Scheduler::Run(const std::vector<std::function<void()>>& bodies, Chooser& chooser) {
  m_threadCount = static_cast<unsigned>(bodies.size());
  for (unsigned i = 0; i < m_threadCount; ++i) {
    TheWorker(i).Prepare(bodies[i]);
  }
  m_chooser = &chooser;
  m_failure.clear();
  m_steps.clear();
  m_choices.clear();
  m_readAt.clear();
  m_over.store(false);
  PassBaton(nullptr);
  m_over.wait(false);
  return m_failure;
}

// `self` is the caller if it is about to take a step; it returns when the step is its own. Otherwise the caller has
// come to its end, or is none of the threads.
void Scheduler::PassBaton(Worker* self) {
  unsigned enabled = 0;
  unsigned worthwhile = 0;
  unsigned unfinished = 0;
  for (unsigned i = 0; i < m_threadCount; ++i) {
    const Worker& worker = *m_workers[i];
    unfinished += worker.finished ? 0 : 1;
    if (!worker.finished && worker.CanStep()) {
      enabled |= 1U << i;
      worthwhile |= worker.asleep ? 0 : 1U << i;
    }
  }
  const bool goesOn = self != nullptr && self->CanStep();
  if (goesOn && self->op == Op::PAUSE) {
    worthwhile = 1U << self->index;  // a pause that is over depends on nobody
  }
  unsigned next = NOBODY;
  if (enabled != 0) {
    next = m_chooser->Choose({goesOn ? self->index : NOBODY, enabled, worthwhile});
  }
  if (enabled == 0) {
    Stop(unfinished == 0 ? m_failure : "deadlock: no thread can take another step");
  } else if ((enabled >> next & 1U) == 0) {
    Stop("the scenario does not do the same twice");
  } else if (m_choices.size() == MAX_STEPS) {
    Stop("no end: the threads have taken " + std::to_string(MAX_STEPS) + " steps");
  } else {
    m_choices.push_back(static_cast<std::uint8_t>(next));
    if (goesOn) {
      self->asleep = next != self->index;
    }
    Worker& chosen = *m_workers[next];
    chosen.asleep = false;
    if (&chosen == self) {
      return;
    }
    chosen.GiveBaton();
  }
  if (self != nullptr) {
    self->AwaitBaton();
  }
}

// Ends the run; threads that have not ended never will.
void Scheduler::Stop(std::string failure) {
  m_failure = std::move(failure);
  m_over.store(true);
  m_over.notify_one();
}

// What the step means to the others.
void Scheduler::Note(Worker& self, std::uint64_t before, std::uint64_t after) {
  m_steps.push_back({self.index, self.op, self.where, before, after, self.point});
  const auto now = static_cast<std::uint32_t>(m_choices.size());
  if (self.op == Op::PAUSE) {
    self.pausedAt = now;
    self.changeSeen = false;
    return;
  }
  auto& readAt = m_readAt[self.where];
  readAt[self.index] = now;
  const bool changed = before != after;
  for (unsigned i = 0; i < m_threadCount; ++i) {
    Worker& other = *m_workers[i];
    if (&other == &self) {
      continue;
    }
    other.changeSeen = other.changeSeen || (changed && readAt[i] > other.pausedAt);
    if (other.asleep && other.where == self.where && (changed || MayWrite(other.op))) {
      other.asleep = false;
    }
  }
}

bool BeginStep(Op op, const void* where, const LockState* lock) noexcept {
  Worker* const self = t_worker;
  if (self == nullptr || HasStaticStorage(where)) {
    return false;
  }
  self->op = op;
  self->where = where;
  self->lock = lock;
  self->owner.PassBaton(self);
  return true;
}

void EndStep(std::uint64_t before, std::uint64_t after) noexcept {
  t_worker->owner.Note(*t_worker, before, after);
  t_worker->op = Op::START;
}

bool PauseStep() noexcept {
  if (!BeginStep(Op::PAUSE, nullptr)) {
    return false;
  }
  EndStep(0, 0);
  return true;
}

void WatchTestPoints(std::function<void(unsigned thread, const char* point)> atPoint) {
  g_atPoint = std::move(atPoint);
  Qen::TestHooks::SetPointHandler(&PassTestPoint);
}

}  // namespace KavoExplorer
