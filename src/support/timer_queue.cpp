#include "support/timer_queue.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace pelmora {
namespace {

// Sleeps while *word == seen, until `deadline` on CLOCK_MONOTONIC (FUTEX_WAIT_BITSET takes an
// absolute time on that clock). True when the deadline passed; false when woken or the word changed.
bool futexSleepUntil(std::atomic<uint32_t>& word, uint32_t seen, std::chrono::steady_clock::time_point deadline) {
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.time_since_epoch()).count();
  if (ns <= 0) return true;
  const timespec at{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
  const long r = ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAIT_BITSET_PRIVATE, seen, &at, nullptr,
                           FUTEX_BITSET_MATCH_ANY);
  return r != 0 && errno == ETIMEDOUT;
}

}  // namespace

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
  wakeThread();
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
  wakeThread();
}

void TimerQueue::fireNow() {
  {
    std::lock_guard lock(m_mutex);
    m_fire_now = true;
  }
  wakeThread();
}

void TimerQueue::runNextAt(int64_t monotonic_us) {
  bool from_action;
  {
    std::lock_guard lock(m_mutex);
    m_next_at_us = monotonic_us;
    from_action = m_thread.get_id() == std::this_thread::get_id();
  }
  // Called from the action (the duty cycle, at every tick), the thread looks at it before sleeping.
  if (!from_action) wakeThread();
}

void TimerQueue::wakeThread() {
  m_wake_word.fetch_add(1);
  ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(&m_wake_word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
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
    if (m_fire_now) {
      // The period after this action is the current one, changed or not.
      m_fire_now = m_period_changed = false;
      m_next_at_us.reset();
      next = clock::now();
    } else if (m_next_at_us) {
      // steady_clock is CLOCK_MONOTONIC: the moment is absolute, so waking late never drifts.
      next = clock::time_point(std::chrono::microseconds(*m_next_at_us));
      m_next_at_us.reset();
      m_period_changed = false;
      continue;
    } else if (m_period_changed) {
      // A new period counts from now, so a shorter period takes effect at once.
      m_period_changed = false;
      next = clock::now() + std::chrono::microseconds(m_interval_us);
      continue;
    } else {
      // Read under the lock: a change made after it bumps the word, and the wait does not sleep.
      const uint32_t seen = m_wake_word.load();
      lock.unlock();
      const bool due = futexSleepUntil(m_wake_word, seen, next);
      lock.lock();
      if (!due) continue;
      if (m_stop) break;
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
