#include "support/main_queue.h"

#include <utility>

namespace pelmora {
namespace {

std::mutex g_poster_mutex;
MainQueue::Poster g_poster;

}  // namespace

void MainQueue::post(Job job) {
  Poster poster;
  {
    std::lock_guard lock(g_poster_mutex);
    poster = g_poster;
  }
  if (poster)
    poster(std::move(job));
  else
    RunLoop::main().post(std::move(job));
}

void MainQueue::install(Poster poster) {
  std::lock_guard lock(g_poster_mutex);
  g_poster = std::move(poster);
}

RunLoop& RunLoop::main() {
  static RunLoop* loop = new RunLoop();  // never destroyed: timer threads may post during exit
  return *loop;
}

void RunLoop::post(MainQueue::Job job) {
  {
    std::lock_guard lock(m_mutex);
    m_jobs.push_back(std::move(job));
  }
  m_cv.notify_all();
}

bool RunLoop::runOne(std::unique_lock<std::mutex>& lock) {
  if (m_jobs.empty()) return false;
  MainQueue::Job job = std::move(m_jobs.front());
  m_jobs.pop_front();
  lock.unlock();
  job();
  lock.lock();
  return true;
}

int RunLoop::runUntilIdle() {
  std::unique_lock lock(m_mutex);
  int ran = 0;
  while (runOne(lock)) ++ran;
  return ran;
}

void RunLoop::runFor(std::chrono::milliseconds duration) {
  const auto until = std::chrono::steady_clock::now() + duration;
  std::unique_lock lock(m_mutex);
  m_quit = false;
  while (!m_quit) {
    if (runOne(lock)) continue;
    if (m_cv.wait_until(lock, until) == std::cv_status::timeout && m_jobs.empty()) break;
  }
  m_quit = false;
}

void RunLoop::run() {
  std::unique_lock lock(m_mutex);
  m_quit = false;
  while (!m_quit) {
    if (runOne(lock)) continue;
    m_cv.wait(lock, [this] { return m_quit || !m_jobs.empty(); });
  }
  m_quit = false;
}

void RunLoop::quit() {
  {
    std::lock_guard lock(m_mutex);
    m_quit = true;
  }
  m_cv.notify_all();
}

}  // namespace pelmora
