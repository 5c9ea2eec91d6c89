// The duty-cycle limiter: set, clear and remove limits, and the limiter tick.
#include <algorithm>
#include <csignal>

#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/limiter_math.h"
#include "process_control/proc_settings.h"
#include "support/logger.h"
#include "support/pid.h"

namespace pelmora {

// On the live /proc, the process's CPU clock: one system call, for any process. Against a fixture
// tree (tests), the helper's "taskinfo", which is where those processes live.
std::optional<int64_t> CPULimiter::measureCPU_us(int32_t pid) {
  if (m_root.procRoot() == "/proc") {
    auto clock = m_cpu_clocks.find(pid);
    if (clock == m_cpu_clocks.end()) {
      auto made = ProcessCpuClock::of(pid);
      if (!made) return std::nullopt;
      clock = m_cpu_clocks.emplace(pid, *made).first;
    }
    auto us = clock->second.read_us();
    if (!us) m_cpu_clocks.erase(clock);
    return us;
  }
  const auto info = m_helper.taskInfo(pid, true);
  if (!info) return std::nullopt;
  // Nanoseconds over every thread, exited ones included; kept exact until the final division.
  return static_cast<int64_t>((info->pti_total_user + info->pti_total_system) / 1000);
}

bool CPULimiter::sendSignalLocked(int32_t pid, int signal) { return m_helper.sendSignal(pid, signal) == 0; }

void CPULimiter::setLimit(int32_t pid, double share, bool tree) {
  if (auto holder = treeOfLocked(pid); holder && *holder != pid) {
    Log("Process " + std::to_string(pid) + " is held with the tree of process " + std::to_string(*holder) +
        "; its own limit is not set.");
    return;
  }
  const bool was_empty = m_pids.empty();
  const Timeval now;
  if (was_empty) restartGridLocked(now);
  pidInfo record;
  if (auto it = m_pids.find(pid); it != m_pids.end()) {
    record = it->second;
  } else {
    record.pid = pid;
    record.stopTime = now;
    record.totalCPU = measureCPU_us(pid).value_or(0);
    m_journal.hold(pid);
    m_duty[pid] = DutySchedule{gridTickLocked(now), -1};
  }
  if (tree && !m_trees.count(pid)) {
    startTreeLocked(pid, record);
    m_adjustments.erase(pid);  // its processor time is now the group's: the adjuster starts afresh
    m_duty[pid].used_per_tick_us = -1;
  } else if (!tree && m_trees.count(pid)) {
    endTreeLocked(pid);
    record.totalCPU = measureCPU_us(pid).value_or(record.totalCPU);
    m_adjustments.erase(pid);
    m_duty[pid].used_per_tick_us = -1;
  }
  record.cpuLimit = share;
  record.creditQuantum = creditQuantumFor(share, m_limiter_interval_ms);
  record.frontmost = PID(pid, m_root).isFrontmost();
  m_pids[pid] = record;
  saveLimitNameLocked(pid, share, tree);
  if (was_empty) setTimerPeriodLocked();
  planNextWakeLocked();
}

// Records (share) or forgets (none) the limit under the process's name for the current power source.
void CPULimiter::saveLimitNameLocked(int32_t pid, std::optional<double> share, bool tree) {
  auto row = m_processes.find(pid);
  if (row == m_processes.end() || row->second.name.empty()) return;
  if (share)
    m_proc_settings->setLimit(row->second.name, m_proc_settings->power(), *share, tree);
  else
    m_proc_settings->removeLimit(row->second.name);
  saveProcessesIntervalLocked();
}

void CPULimiter::removeLimitLocked(int32_t pid) {
  auto it = m_pids.find(pid);
  if (it == m_pids.end()) return;
  signalLocked(pid, SIGCONT);  // whether or not we think it is stopped
  endTreeLocked(pid);
  m_pids.erase(it);
  m_duty.erase(pid);
  m_cpu_clocks.erase(pid);
  m_journal.forget(pid);
  if (m_pids.empty()) setTimerPeriodLocked();
}

void CPULimiter::clearLimit(int32_t pid) {
  MutexLock lock(m_mutex);
  removeLimitLocked(pid);
  saveLimitNameLocked(pid, std::nullopt);
}

void CPULimiter::clearAllLimits() {
  MutexLock lock(m_mutex);
  m_proc_settings->clearLimits();
  const auto pids = m_pids;
  for (const auto& [pid, record] : pids) {
    if (!signalLocked(pid, SIGCONT)) removeLimitLocked(pid);
  }
  m_pids.clear();
  m_duty.clear();
  m_trees.clear();
  m_adjustments.clear();
  m_cpu_clocks.clear();
  m_journal.forgetAll();
  saveProcessesIntervalLocked();
  setTimerPeriodLocked();
}

void CPULimiter::continueAll() {
  MutexLock lock(m_mutex);
  const auto pids = m_pids;
  for (const auto& [pid, record] : pids) {
    if (!signalLocked(pid, SIGCONT)) removeLimitLocked(pid);
  }
}

std::optional<double> CPULimiter::limitFor(int32_t pid) {
  MutexLock lock(m_mutex);
  auto it = m_pids.find(pid);
  if (it == m_pids.end()) return std::nullopt;
  return it->second.cpuLimit;
}

std::map<int32_t, pidInfo> CPULimiter::limits() {
  MutexLock lock(m_mutex);
  return m_pids;
}

void CPULimiter::limiterTickLocked(const Timeval& now, bool all) {
  const int64_t tick = gridTickLocked(now);
  // Filled in place (its capacity stays) and in m_pids's order: a steady tick allocates nothing.
  m_due.clear();
  bool tree_due = false;
  for (const auto& [pid, record] : m_pids) {
    const auto duty = m_duty.try_emplace(pid, DutySchedule{tick - 1, -1}).first;
    if (tick <= duty->second.last_tick || (!all && dueTickLocked(pid, record) > tick)) continue;
    m_due.push_back(pid);
    tree_due = tree_due || m_trees.count(pid);
  }
  if (m_due.empty()) return;
  std::set<int32_t> released;
  const auto found = tree_due ? growTreesLocked(released) : std::map<int32_t, std::set<int32_t>>{};
  // The records are updated where they are; the step drops a record (or removes its limit) only
  // for its own pid, so the next entry stays valid.
  for (auto it = m_pids.begin(); it != m_pids.end();) {
    const auto next = std::next(it);
    if (it->second.pid < 0) {
      m_pids.erase(it);
    } else if (std::binary_search(m_due.begin(), m_due.end(), it->first)) {
      const auto tree = found.find(it->first);
      stepLocked(it, tree == found.end() ? nullptr : &tree->second, released, tick, now);
    }
    it = next;
  }
  std::erase_if(m_duty, [&](const auto& entry) { return !m_pids.count(entry.first); });
}

void CPULimiter::stepLocked(std::map<int32_t, pidInfo>::iterator it, const std::set<int32_t>* tree_found,
                            const std::set<int32_t>& released, int64_t tick, const Timeval& now) {
  const int32_t pid = it->first;
  const pidInfo& record = it->second;
  int64_t total = record.totalCPU;
  if (tree_found || !record.stopped) {
    // A tree is always measured: a member that joined since the last tick may have run.
    const auto measured = tree_found ? measureTreeLocked(pid, record, *tree_found, released) : measureCPU_us(pid);
    if (!measured) {
      m_journal.forget(pid);  // gone: nothing to continue
      m_pids.erase(it);
      return;
    }
    total = *measured;
  }
  DutySchedule& duty = m_duty[pid];
  const int64_t ticks = tick - duty.last_tick;
  const LimiterStep step = limiterStep(record, total, m_limit_frontmost, now, ticks);
  if (!record.stopped)
    duty.used_per_tick_us = static_cast<double>(checkedAdd(total, -record.totalCPU)) / static_cast<double>(ticks);
  duty.last_tick = tick;
  bool ok = true;
  if (step.signal == LimiterSignal::stop) ok = signalLocked(pid, SIGSTOP);
  if (step.signal == LimiterSignal::resume) ok = signalLocked(pid, SIGCONT);
  if (!ok) {
    removeLimitLocked(pid);
    return;
  }
  it->second = step.record;
}

}  // namespace pelmora
