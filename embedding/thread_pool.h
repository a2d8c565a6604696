// The threads of one embedding: a call deals its work out in pieces to itself and to whichever helpers are free.
//
// CONTRACT. Run may be called on any threads at once. It returns when all pieces are done, and waits for pieces that a
// helper has begun, never for a helper that has not come yet: a call on busy helpers does all of its work itself.
// Pieces must not throw. Helpers are started by the first call that could use them; if the system refuses one, the work
// is done by those that there are. In a child of fork there are no helpers, and calls work on their own thread.
//
// Who touches what: the list of jobs, their counts of helpers and the threads are guarded by one mutex; a job's next
// piece is taken by any thread at work on it.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/atomic.h"

namespace Qen {

class ThreadPool {
 public:
  // At most `threads` at work on one call, the caller's among them.
  explicit ThreadPool(unsigned threads);
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;
  ~ThreadPool();

  unsigned Threads() const noexcept { return m_threads; }

  // piece(i) for i from 0 to pieces - 1, each once, on any of the threads. Whatever a piece did is seen by the caller.
  template <class Piece>
  void Run(std::size_t pieces, const Piece& piece) {
    Job job{pieces, &piece, [](const void* self, std::size_t i) { (*static_cast<const Piece*>(self))(i); }};
    RunJob(job);
  }

 private:
  struct Job {
    std::size_t pieces;
    const void* piece;
    void (*call)(const void* piece, std::size_t index);
    Atomic<std::size_t> next{0};
    unsigned helpers = 0;  // at work on it; under the mutex
    Job* following = nullptr;
  };

  void RunJob(Job& job);
  static void Work(Job& job) noexcept;
  void StartHelpers() noexcept;
  void Help();

  bool IsInChild() const noexcept;

  const unsigned m_threads;
  const pid_t m_process;  // that the pool was made in: only there it has helpers, and a lock that is given back
  // With the helpers; by itself, since a child of fork must leave it as it is: its conditions have waiters that the
  // child does not have, and destroying them would wait for those.
  struct Shared {
    std::mutex mutex;              // guards the rest
    std::condition_variable come;  // a job was listed, or the end
    std::condition_variable left;  // a helper has left a job
    Job* jobs = nullptr;
    bool ended = false;
    bool started = false;
    std::vector<std::thread> helpers;
  };
  std::unique_ptr<Shared> m_shared;
};

}  // namespace Qen
