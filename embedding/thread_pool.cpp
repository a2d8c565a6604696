#include "embedding/thread_pool.h"

#include <unistd.h>

#include <exception>

namespace Qen {

ThreadPool::ThreadPool(unsigned threads)
    : m_threads(threads), m_process(getpid()), m_shared(std::make_unique<Shared>()) {}

bool ThreadPool::IsInChild() const noexcept {
  return m_process != getpid();
}

ThreadPool::~ThreadPool() {
  if (IsInChild()) {
    static_cast<void>(m_shared.release());
    return;
  }
  {
    const std::lock_guard lock(m_shared->mutex);
    m_shared->ended = true;
  }
  m_shared->come.notify_all();
  for (std::thread& helper : m_shared->helpers) {
    helper.join();
  }
}

void ThreadPool::RunJob(Job& job) {
  if (job.pieces <= 1 || m_threads <= 1 || IsInChild()) {
    Work(job);
    return;
  }
  {
    const std::lock_guard lock(m_shared->mutex);
    StartHelpers();
    job.following = m_shared->jobs;
    m_shared->jobs = &job;
  }
  m_shared->come.notify_all();
  Work(job);
  std::unique_lock lock(m_shared->mutex);
  for (Job** place = &m_shared->jobs; *place != nullptr; place = &(*place)->following) {
    if (*place == &job) {
      *place = job.following;
      break;
    }
  }
  m_shared->left.wait(lock, [&job] { return job.helpers == 0; });
}

void ThreadPool::Work(Job& job) noexcept {
  // Relaxed: hands out numbers. What the caller wrote was published by the lock under which the job was listed, what
  // the helpers did by the lock under which they leave it.
  for (std::size_t i = job.next.fetch_add(1, std::memory_order_relaxed); i < job.pieces;
       i = job.next.fetch_add(1, std::memory_order_relaxed)) {
    job.call(job.piece, i);
  }
}

// Under the mutex.
void ThreadPool::StartHelpers() noexcept {
  if (m_shared->started) {
    return;
  }
  m_shared->started = true;
  try {
    m_shared->helpers.reserve(m_threads - 1);
    for (unsigned i = 1; i < m_threads; ++i) {
      m_shared->helpers.emplace_back([this] { Help(); });
    }
  } catch (const std::exception&) {  // fewer will do
  }
}

void ThreadPool::Help() {
  std::unique_lock lock(m_shared->mutex);
  for (;;) {
    Job* job = m_shared->jobs;
    // Relaxed: a hint; a job that has no piece left is passed by.
    while (job != nullptr && job->next.load(std::memory_order_relaxed) >= job->pieces) {
      job = job->following;
    }
    if (job != nullptr) {
      ++job->helpers;
      lock.unlock();
      Work(*job);
      lock.lock();
      if (--job->helpers == 0) {
        m_shared->left.notify_all();
      }
    } else if (m_shared->ended) {
      return;
    } else {
      m_shared->come.wait(lock);
    }
  }
}

}  // namespace Qen
