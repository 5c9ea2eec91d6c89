#pragma once
// A repeating timer on a thread of its own: a start hook runs once on that thread, then the action
// runs every period until stop(). The period may change while it runs (the sleeping thread wakes
// and re-arms), and one run may be moved to an absolute moment of the monotonic clock (a duty cycle
// that sleeps until its next deadline). stop() joins the thread, so it must not be called from the
// action itself.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "support/thread_policy.h"

namespace pelmora {

class TimerQueue {
 public:
  TimerQueue(std::string label, int64_t interval_us, std::function<void()> start_hook,
             std::function<void()> action);
  ~TimerQueue();
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;

  // Starts the thread; false when it is already running.
  bool start(QoS qos = QoS::defaultQoS);
  void stop();
  bool running() const;
  void setPeriod_us(int64_t interval_us);
  int64_t period_us() const;
  // Runs the action as soon as possible, then keeps the period from that moment.
  void fireNow();
  // The next run happens at `monotonic_us` (CLOCK_MONOTONIC, microseconds; at once if it has passed)
  // instead of one period after the last; the period resumes from there. Callable from the action.
  void runNextAt(int64_t monotonic_us);
  // Applied by the timer thread before its next action.
  void setQoS(QoS qos);
  const std::string& label() const { return m_label; }

 private:
  void threadMain();
  // Wakes the sleeping thread after a change made under m_mutex (from any other thread).
  void wakeThread();

  const std::string m_label;
  std::function<void()> m_start_hook;
  std::function<void()> m_action;

  mutable std::mutex m_mutex;
  // Bumped after each change the sleeping thread must see; it sleeps while the word is unchanged.
  std::atomic<uint32_t> m_wake_word{0};
  std::thread m_thread;
  int64_t m_interval_us;
  bool m_running = false;
  bool m_stop = false;
  bool m_period_changed = false;
  bool m_fire_now = false;
  std::optional<int64_t> m_next_at_us;
  bool m_qos_pending = false;
  QoS m_qos = QoS::defaultQoS;
};

}  // namespace pelmora
