#pragma once
// "The main thread" is wherever the program runs its event loop. Code below the application posts
// jobs here; the Qt application installs a poster that queues onto its event loop, the CLI and the
// tests run the plain RunLoop. Nothing in the core calls Qt to get there.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace pelmora {

class MainQueue {
 public:
  using Job = std::function<void()>;
  using Poster = std::function<void(Job)>;

  // Runs job later on the main thread. Safe from any thread.
  static void post(Job job);
  // Replaces where jobs go (nullptr: back to RunLoop::main()).
  static void install(Poster poster);
};

// A plain run loop: a queue of jobs run on the thread that calls run*().
class RunLoop {
 public:
  static RunLoop& main();  // the default target of MainQueue::post

  void post(MainQueue::Job job);
  // Runs queued jobs (and any they post) until the queue is empty; returns how many ran.
  int runUntilIdle();
  // Runs jobs as they arrive for the given time, or until quit().
  void runFor(std::chrono::milliseconds duration);
  // Runs until quit() is called (from any thread).
  void run();
  void quit();

 private:
  bool runOne(std::unique_lock<std::mutex>& lock);

  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::deque<MainQueue::Job> m_jobs;
  bool m_quit = false;
};

}  // namespace pelmora
