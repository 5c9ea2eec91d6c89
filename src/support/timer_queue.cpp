#include "support/timer_queue.h"

#include <algorithm>

namespace pelmora {

TimerQueue::TimerQueue(std::string label, int64_t interval_us, std::function<void()> start_hook,
                       std::function<void()> action)
    : m_label(std::move(label)),
      m_start_hook(std::move(start_hook)),
      m_action(std::move(action)),
      m_interval_us(std::max<int64_t>(interval_us, 1)) {}

TimerQueue::~TimerQueue() { stop(); }

bool TimerQueue::start(QoS qos) {
  std::lock_guard lock(m_mutex);
  if (m_running) return false;
  m_running = true;
  m_stop = false;
  m_qos = qos;
  m_qos_pending = true;
  m_thread = std::thread([this] { threadMain(); });
  return true;
}

void TimerQueue::stop() {
  std::thread thread;
  {
    std::lock_guard lock(m_mutex);
    if (!m_running) return;
    m_stop = true;
    thread = std::move(m_thread);
  }
  m_cv.notify_all();
  if (thread.joinable()) thread.join();
  std::lock_guard lock(m_mutex);
  m_running = false;
}

bool TimerQueue::running() const {
  std::lock_guard lock(m_mutex);
  return m_running;
}

void TimerQueue::setPeriod_us(int64_t interval_us) {
  {
    std::lock_guard lock(m_mutex);
    m_interval_us = std::max<int64_t>(interval_us, 1);
    m_period_changed = true;
  }
  m_cv.notify_all();
}

void TimerQueue::fireNow() {
  {
    std::lock_guard lock(m_mutex);
    m_fire_now = true;
  }
  m_cv.notify_all();
}

void TimerQueue::runNextAt(int64_t monotonic_us) {
  {
    std::lock_guard lock(m_mutex);
    m_next_at_us = monotonic_us;
  }
  m_cv.notify_all();
}

int64_t TimerQueue::period_us() const {
  std::lock_guard lock(m_mutex);
  return m_interval_us;
}

void TimerQueue::setQoS(QoS qos) {
  std::lock_guard lock(m_mutex);
  m_qos = qos;
  m_qos_pending = true;
}

void TimerQueue::threadMain() {
  nameCurrentThread(m_label);
  if (m_start_hook) m_start_hook();
  using clock = std::chrono::steady_clock;
  std::unique_lock lock(m_mutex);
  auto next = clock::now() + std::chrono::microseconds(m_interval_us);
  while (!m_stop) {
    if (m_qos_pending) {
      m_qos_pending = false;
      applyQoSToCurrentThread(m_qos);
    }
    if (m_cv.wait_until(lock, next, [this] { return m_stop || m_period_changed || m_fire_now || m_next_at_us; })) {
      if (m_stop) break;
      if (m_fire_now) {
        // The period after this action is the current one, changed or not.
        m_fire_now = m_period_changed = false;
        m_next_at_us.reset();
        next = clock::now();
        continue;
      }
      if (m_next_at_us) {
        // steady_clock is CLOCK_MONOTONIC: the moment is absolute, so waking late never drifts.
        next = clock::time_point(std::chrono::microseconds(*m_next_at_us));
        m_next_at_us.reset();
        m_period_changed = false;
        continue;
      }
      // A new period counts from now, so a shorter period takes effect at once.
      m_period_changed = false;
      next = clock::now() + std::chrono::microseconds(m_interval_us);
      continue;
    }
    lock.unlock();
    m_action();
    lock.lock();
    const auto period = std::chrono::microseconds(m_interval_us);
    next += period;
    // A tick that overran its period does not try to catch up with a burst.
    if (const auto now = clock::now(); next < now) next = now + period;
  }
}

}  // namespace pelmora
