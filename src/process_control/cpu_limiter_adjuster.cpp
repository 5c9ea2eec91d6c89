// The adjuster that tunes each limited process's per-tick budget, the PID settings, and renice.
#include <algorithm>

#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/limiter_math.h"
#include "process_control/proc_settings.h"
#include "support/default_settings.h"
#include "support/logger.h"
#include "support/pid.h"

namespace pelmora {
namespace {

int64_t clampedSetting(DefaultSettings& settings, const IntKey& key, int64_t low, int64_t high) {
  const int64_t value = key.load(settings);
  if (value >= low && value <= high) return value;
  Log("Setting " + std::string(key.key) + " = " + std::to_string(value) + " is outside " + std::to_string(low) + "..." +
      std::to_string(high) + "; using " + std::to_string(std::clamp(value, low, high)) + ".");
  return std::clamp(value, low, high);
}

}  // namespace

void CPULimiter::loadPIDGainsLocked() {
  m_usePIDControl = keys::kUsePIDController.load(m_settings);
  m_kp = keys::kPIDProportional.load(m_settings);
  m_ki = keys::kPIDIntegral.load(m_settings);
  m_kd = keys::kPIDDerivative.load(m_settings);
}

void CPULimiter::loadPIDSettings() {
  MutexLock lock(m_mutex);
  loadPIDGainsLocked();
  const int64_t limiter = clampedSetting(m_settings, keys::kLimiterInterval_ms, 1, 1000);
  if (limiter != m_limiter_interval_ms) {
    // The budget is per tick: a longer tick needs a proportionally larger one.
    for (auto& [pid, record] : m_pids) record.creditQuantum = creditQuantumFor(record.cpuLimit, limiter);
    m_limiter_interval_ms = limiter;
    restartGridLocked(Timeval());  // a grid of the new interval, from now
    setTimerPeriodLocked();
  }
  const int64_t adjuster = clampedSetting(m_settings, keys::kAdjusterInterval_ms, 100, 5000);
  if (adjuster != m_adjuster_interval_ms) {
    m_adjuster_interval_ms = adjuster;
    setTimerPeriodLocked();
  }
  planNextWakeLocked();
}

std::map<int32_t, adjustInfo> CPULimiter::adjustments() {
  MutexLock lock(m_mutex);
  return m_adjustments;
}

void CPULimiter::adjusterRunLocked() {
  if (m_pids.empty() && m_adjustments.empty()) return;
  const Timeval now;
  const double cpus = onlineCpusLocked(now);
  const AdjusterSettings settings{m_usePIDControl, m_kp, m_ki, m_kd, m_limiter_interval_ms};
  for (auto& [pid, record] : m_pids) {
    if (record.frontmost && !m_limit_frontmost) continue;
    auto found = m_adjustments.find(pid);
    const adjustInfo info = found != m_adjustments.end() ? found->second : freshAdjustInfo(record, now);
    if (auto step = adjusterStep(record, info, settings, cpus, now)) {
      record.creditQuantum = step->creditQuantum;
      m_adjustments[pid] = step->info;
    } else {
      m_adjustments[pid] = info;
    }
  }
  std::erase_if(m_adjustments, [&](const auto& entry) { return !m_pids.count(entry.first); });
}

void CPULimiter::renice(int32_t pid, int priority) {
  MutexLock lock(m_mutex);
  reniceLocked(pid, priority);
}

void CPULimiter::reniceLocked(int32_t pid, int priority) {
  if (priority < -20 || priority > 20) return;
  if (PID(pid, m_root).priority() == priority) return;
  auto row = m_processes.find(pid);
  if (row == m_processes.end() || row->second.name.empty()) return;
  m_proc_settings->setPriority(row->second.name, m_proc_settings->power(), priority);
  saveProcessesIntervalLocked();
  setPriorityLocked(pid, priority);
}

// A held tree's first process gives its priority to the whole group, members still to come too.
void CPULimiter::setPriorityLocked(int32_t pid, int priority) {
  m_helper.setPriority(pid, priority);
  if (auto tree = m_trees.find(pid); tree != m_trees.end()) {
    tree->second.nice = priority;
    for (const auto& [member, cpu_us] : tree->second.members)
      if (member != pid) m_helper.setPriority(member, priority);
  }
}

}  // namespace pelmora
