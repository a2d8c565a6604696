#include "embedding/thread_pool.h"

#include <unistd.h>

#include <exception>

namespace Qen {

ThreadPool::ThreadPool(unsigned threads) noexcept : m_threads(threads), m_process(getpid()) {}

bool ThreadPool::IsInChild() const noexcept {
  return m_process != getpid();
}

ThreadPool::~ThreadPool() {
  if (IsInChild()) {
    new std::vector<std::thread>(std::move(m_helpers));  // threads of the parent: nothing here to join, nor to detach
    return;
  }
  {
    const std::lock_guard lock(m_mutex);
    m_ended = true;
  }
  m_come.notify_all();
  for (std::thread& helper : m_helpers) {
    helper.join();
  }
}

void ThreadPool::RunJob(Job& job) {
  if (job.pieces <= 1 || m_threads <= 1 || IsInChild()) {
    Work(job);
    return;
  }
  {
    const std::lock_guard lock(m_mutex);
    StartHelpers();
    job.following = m_jobs;
    m_jobs = &job;
  }
  m_come.notify_all();
  Work(job);
  std::unique_lock lock(m_mutex);
  for (Job** place = &m_jobs; *place != nullptr; place = &(*place)->following) {
    if (*place == &job) {
      *place = job.following;
      break;
    }
  }
  m_left.wait(lock, [&job] { return job.helpers == 0; });
}

void ThreadPool::Work(Job& job) noexcept {
  // Relaxed: hands out numbers. What the caller wrote was published by the lock under which the job was listed, what
  // the helpers did by the lock under which they leave it.
  for (std::size_t i = job.next.fetch_add(1, std::memory_order_relaxed); i < job.pieces;
       i = job.next.fetch_add(1, std::memory_order_relaxed)) {
    job.call(job.piece, i);
  }
}

// Under m_mutex.
void ThreadPool::StartHelpers() noexcept {
  if (m_started) {
    return;
  }
  m_started = true;
  try {
    m_helpers.reserve(m_threads - 1);
    for (unsigned i = 1; i < m_threads; ++i) {
      m_helpers.emplace_back([this] { Help(); });
    }
  } catch (const std::exception&) {  // fewer will do
  }
}

void ThreadPool::Help() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    Job* job = m_jobs;
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
        m_left.notify_all();
      }
    } else if (m_ended) {
      return;
    } else {
      m_come.wait(lock);
    }
  }
}

}  // namespace Qen
