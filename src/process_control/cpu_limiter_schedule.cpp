// When the limiter's timer wakes. The duty cycle keeps the meaning of its limiter interval (one
// quantum of credit per interval, stops and continues only at interval boundaries), but the
// boundaries form a grid on the monotonic clock and the timer sleeps until the next boundary at
// which something is due: a stopped process's continue, a running process's foreseen stop, the
// adjuster or the table refresh. A steady busy loop held at 10 % is thus looked at twice per
// duty cycle instead of at every 30 ms tick.
#include <algorithm>

#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/limiter_math.h"
#include "support/timer_queue.h"

namespace pelmora {
namespace {

// A running process that does not use up its budget is still looked at this often: should it
// start to run flat out, it overruns by no more than this before being stopped (and pays it back).
constexpr int64_t kRunningLookEvery_ms = 150;
// The adjuster may wait this long for a wake the duty cycle needs anyway, rather than wake alone.
constexpr int64_t kAdjusterCoalesce_ms = 60;
// The same for the table refresh, as a share of its interval (at most half a second).
constexpr int64_t kRefreshCoalesceDivisor = 10;
constexpr int64_t kRefreshCoalesceMost_us = 500'000;
// How often the online processor list is read to see whether the count may have changed.
constexpr int64_t kOnlineRecheck_us = 5'000'000;

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

}  // namespace

void CPULimiter::restartGridLocked(const Timeval& now) {
  m_grid_origin = now;
  // Rates per tick mean nothing on a grid of another interval; the next step measures them again.
  for (auto& [pid, duty] : m_duty) duty = DutySchedule{};
}

int64_t CPULimiter::gridTickLocked(const Timeval& now) const {
  return floorDiv(m_grid_origin.elapsedUntil(now), m_limiter_interval_ms * 1000);
}

int64_t CPULimiter::gridTime_us(int64_t tick) const {
  return m_grid_origin.microseconds() + tick * m_limiter_interval_ms * 1000;
}

int64_t CPULimiter::gridTickAtOrAfterLocked(int64_t time_us) const {
  const int64_t interval_us = m_limiter_interval_ms * 1000;
  return -floorDiv(m_grid_origin.microseconds() - time_us, interval_us);
}

int64_t CPULimiter::dueTickLocked(int32_t pid, const pidInfo& record) {
  auto duty = m_duty.find(pid);
  if (duty == m_duty.end()) return gridTickLocked(Timeval()) + 1;
  const int64_t most = std::max<int64_t>(kRunningLookEvery_ms / m_limiter_interval_ms, 1);
  const int64_t ticks = ticksUntilDue(record, duty->second.used_per_tick_us, m_limit_frontmost, most);
  // A held tree is looked at as often even while stopped: a process can join it then (an orphan
  // adopted by a member that reaps orphans), and must be stopped with it.
  return duty->second.last_tick + (m_trees.count(pid) ? std::min(ticks, most) : ticks);
}

void CPULimiter::planNextWakeLocked() {
  if (m_pids.empty()) {
    m_next_wake_us.reset();  // the timer runs at its period (the refresh's)
    return;
  }
  int64_t tick = INT64_MAX;
  for (const auto& [pid, record] : m_pids) tick = std::min(tick, dueTickLocked(pid, record));
  // due() lets a step run half a period early; the adjuster's tick is the first at or after that.
  const int64_t half_tick_us = m_limiter_interval_ms * 500;
  const int64_t adjuster_due_us =
      m_adjuster_lasttime.microseconds() + m_adjuster_interval_ms * 1000 - half_tick_us;
  tick = std::min(tick, gridTickAtOrAfterLocked(adjuster_due_us) + kAdjusterCoalesce_ms / m_limiter_interval_ms);
  int64_t wake_us = gridTime_us(tick);
  if (m_options.process_table) {
    const int64_t interval_us = m_processes_interval_ms * 1000;
    const int64_t slack_us = std::min(interval_us / kRefreshCoalesceDivisor, kRefreshCoalesceMost_us);
    wake_us = std::min(wake_us, m_monitor_lasttime.microseconds() + interval_us - half_tick_us + slack_us);
  }
  m_next_wake_us = wake_us;
  m_timer->runNextAt(wake_us);
}

// The number of online processors changes only when one is switched on or off: the helper is asked
// again when the online list reads differently (looked at every few seconds), after our own
// settings window switched processors, and after a failed answer.
double CPULimiter::onlineCpusLocked(const Timeval& now) {
  if (m_online_cpus && *m_online_cpus > 0 && m_online_checked.elapsedUntil(now) < kOnlineRecheck_us)
    return *m_online_cpus;
  m_online_checked = now;
  auto text = m_root.readSys("devices/system/cpu/online");
  if (m_online_cpus && *m_online_cpus > 0 && text && text == m_online_text) return *m_online_cpus;
  m_online_text = std::move(text);
  m_online_cpus = static_cast<double>(m_helper.requestCpuInfo().logical_cpu);
  return *m_online_cpus;
}

}  // namespace pelmora
