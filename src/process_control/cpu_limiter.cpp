#include "process_control/cpu_limiter.h"

#include <unistd.h>

#include <algorithm>

#include "helper_link/pelmora.h"
#include "process_control/nettop_parser.h"
#include "process_control/power_monitor.h"
#include "process_control/proc_settings.h"
#include "support/broadcast.h"
#include "support/default_settings.h"
#include "support/execute.h"
#include "support/logger.h"
#include "support/paths.h"
#include "support/thread_policy.h"
#include "support/timer_queue.h"

namespace pelmora {
namespace {

constexpr const char* kTimerLabel = "net.tandrel.pelmora.timer";
constexpr const char* kPrefsListener = "net.tandrel.pelmora.prefschanged.CPULimiter";

constexpr const char* kAuthChangedBroadcast = "net.tandrel.pelmora.authchanged";
constexpr const char* kAuthListener = "net.tandrel.pelmora.authchanged.CPULimiter";
// Sent after our settings window switched processors on or off: the adjuster's count is stale.
constexpr const char* kCpuChangedBroadcast = "net.tandrel.pelmora.cpuchanged";
constexpr const char* kCpuListener = "net.tandrel.pelmora.cpuchanged.CPULimiter";

std::string findNettop(const std::string& configured) {
  if (!configured.empty()) return configured;
  if (const char* env = std::getenv("PELMORA_NETTOP"); env && *env) return env;
  return paths::siblingProgram("pelmora-nettop", "nettop");
}

}  // namespace

CPULimiter& CPULimiter::shared() {
  static CPULimiter* limiter =
      new CPULimiter(Pelmora::shared(), SysRoot::current(), DefaultSettings::shared(), &PowerMonitor::shared(), {});
  return *limiter;
}

CPULimiter::CPULimiter(Pelmora& helper, SysRoot root, DefaultSettings& settings, Options options)
    : CPULimiter(helper, std::move(root), settings, nullptr, std::move(options)) {}

CPULimiter::CPULimiter(Pelmora& helper, SysRoot root, DefaultSettings& settings, PowerMonitor* monitor, Options options)
    : m_helper(helper),
      m_root(std::move(root)),
      m_settings(settings),
      m_options(std::move(options)),
      m_energy(m_root),
      m_uid(getuid()),
      m_proclist(m_root),
      m_process_tree(m_root),
      m_journal(m_options.journal_dir.empty() ? StopJournal::defaultDir() : m_options.journal_dir, m_root) {
  if (!monitor) {
    PowerMonitor::Options manual;
    manual.use_device_monitor = false;
    m_own_monitor = std::make_unique<PowerMonitor>(m_root, manual);
    monitor = m_own_monitor.get();
  }
  m_proc_settings = std::make_unique<ProcSettings>(m_settings, *monitor);
  // Processes a previous run left stopped when it died without continuing them.
  m_journal.recover();
  m_processes_interval_ms = std::clamp<int64_t>(keys::kProcessesInterval_ms.load(m_settings), 100, 3'600'000);
  if (auto ticks = readMachineTicks()) m_usage_ticks = *ticks;
  loadPIDGainsLocked();
  m_timer = std::make_unique<TimerQueue>(
      kTimerLabel, tickIntervalLocked_ms() * 1000, [] { makeCurrentThreadTimeConstraint(); }, [this] { tick(); });
}

CPULimiter::~CPULimiter() {
  if (m_listening) {
    RemoveListener(kPrefsChangedBroadcast, kPrefsListener);
    RemoveListener(kAuthChangedBroadcast, kAuthListener);
    RemoveListener(kCpuChangedBroadcast, kCpuListener);
  }
  stop();
  m_timer->stop();
  // Nobody is left to continue them: never leave a process stopped behind us.
  continueAll();
}

bool CPULimiter::start() {
  // stop() ends only the network tool, so at wake the timer may still run: start what stop ended.
  if (!m_timer->start(QoS::userInteractive) && !m_timer->running()) return false;
  AddListener(kPrefsChangedBroadcast, kPrefsListener, [this](const std::string&) { loadPIDSettings(); });
  // Authorised, the daemon's root tool sees every process's sockets; without, our own sees ours.
  AddListener(kAuthChangedBroadcast, kAuthListener, [this](const std::string&) { restartNettop(); });
  AddListener(kCpuChangedBroadcast, kCpuListener, [this](const std::string&) {
    MutexLock lock(m_mutex);
    m_online_cpus.reset();
  });
  m_listening = true;
  loadPIDSettings();
  m_timer->setQoS(QoS::userInteractive);
  if (m_options.process_table && tableWanted()) startNettop();
  return true;
}

void CPULimiter::setTableOnDemand(bool on_demand) {
  {
    MutexLock lock(m_mutex);
    if (m_table_on_demand == on_demand) return;
    m_table_on_demand = on_demand;
  }
  if (!tableWanted()) stop();
}

void CPULimiter::addTableClient() {
  {
    MutexLock lock(m_mutex);
    if (++m_table_clients > 1 || !m_table_on_demand) return;
    // Due at the next tick, which comes at once: the window should not wait a whole interval.
    m_monitor_lasttime = Timeval::fromMicroseconds(Timeval::nowMicroseconds() - m_processes_interval_ms * 1000);
  }
  if (m_listening && m_options.process_table) startNettop();
  m_timer->fireNow();
}

void CPULimiter::removeTableClient() {
  {
    MutexLock lock(m_mutex);
    if (m_table_clients == 0 || --m_table_clients > 0 || !m_table_on_demand) return;
    m_netuse.clear();
  }
  stop();
}

bool CPULimiter::tableWanted() {
  MutexLock lock(m_mutex);
  return tableWantedLocked();
}

bool CPULimiter::tableWantedLocked() const { return !m_table_on_demand || m_table_clients > 0; }

ProcessCensus CPULimiter::owners() {
  MutexLock lock(m_mutex);
  m_owners_asked = true;
  ProcessCensus owners;
  owners.uids.reserve(m_processes.size());
  for (const auto& [pid, row] : m_processes) owners.uids.push_back(row.uid);
  owners.translated = m_translated_count;
  return owners;
}

RefreshCounts CPULimiter::refreshCounts() { return lockedCopy(m_mutex, m_refresh_counts); }

void CPULimiter::startNettop() {
  {
    MutexLock lock(m_mutex);
    if (m_nettop) return;
    m_nettop_buffer.clear();
  }
  Execute::Reader reader = [this](std::string_view chunk) {
    if (!chunk.empty()) handleNettopChunk(chunk);
  };
  std::unique_ptr<Execute> child;
  // Via the helper exactly when authorised: its tool runs as root and sees every process.
  if (m_helper.authorised()) {
    auto reply = m_helper.nettop();
    if (reply.status == 0 && reply.fd)
      child = Execute::readFd(std::move(reply.fd), reader);
    else
      Log("The helper did not start pelmora-nettop; network rates cover this user's processes only.");
  }
  if (!child) {
    const std::string path = findNettop(m_options.nettop_path);
    if (path.empty()) {
      Log("pelmora-nettop not found; network rates stay 0.");
      return;
    }
    // Started outside the lock and from this (ordinary) thread: a deadline thread may not fork.
    child = Execute::readPipe(path, QoS::utility, {}, {}, reader);
  }
  MutexLock lock(m_mutex);
  if (!m_nettop) m_nettop = std::move(child);
}

void CPULimiter::restartNettop() {
  {
    MutexLock lock(m_mutex);
    if (!m_nettop) return;  // stopped (asleep, quitting): start() brings it back
  }
  stop();
  {
    // The new tool counts from zero: its processes start afresh.
    MutexLock lock(m_mutex);
    m_netuse.clear();
  }
  startNettop();
}

void CPULimiter::stop() {
  std::unique_ptr<Execute> child;
  {
    MutexLock lock(m_mutex);
    child = std::move(m_nettop);
    m_nettop_buffer.clear();
  }
  // Terminated without the lock: its reader may be waiting for it.
  if (child) child->terminate();
}

void CPULimiter::stopTimer() {
  if (m_listening) {
    RemoveListener(kPrefsChangedBroadcast, kPrefsListener);
    RemoveListener(kAuthChangedBroadcast, kAuthListener);
    RemoveListener(kCpuChangedBroadcast, kCpuListener);
    m_listening = false;
  }
  m_timer->stop();
}

bool CPULimiter::nettopRunning() {
  MutexLock lock(m_mutex);
  return m_nettop && !m_nettop->finished();
}

void CPULimiter::handleNettopChunk(std::string_view chunk) {
  MutexLock lock(m_mutex);
  const double time_constant_s = static_cast<double>(m_processes_interval_ms) * 0.001;
  for (const auto& sample : feedNettopChunk(m_nettop_buffer, chunk))
    recordNettopSample(m_netuse, sample, time_constant_s);
}

std::map<int32_t, netUsage> CPULimiter::netUse() { return lockedCopy(m_mutex, m_netuse); }

int64_t CPULimiter::processesInterval_ms() { return lockedCopy(m_mutex, m_processes_interval_ms); }

void CPULimiter::setProcessesInterval_ms(int64_t interval_ms) {
  MutexLock lock(m_mutex);
  if (interval_ms < 1 || interval_ms == m_processes_interval_ms) return;
  m_processes_interval_ms = interval_ms;
  saveProcessesIntervalLocked();
  setTimerPeriodLocked();
}

void CPULimiter::saveProcessesIntervalLocked() {
  keys::kProcessesInterval_ms.save(m_settings, m_processes_interval_ms);
}

int64_t CPULimiter::tickInterval_ms() {
  MutexLock lock(m_mutex);
  return tickIntervalLocked_ms();
}

int64_t CPULimiter::tickIntervalLocked_ms() const {
  if (m_pids.empty()) return m_processes_interval_ms;
  const int64_t limiting = std::min(m_limiter_interval_ms, m_adjuster_interval_ms);
  return m_options.process_table ? std::min(limiting, m_processes_interval_ms) : limiting;
}

// Runs on the timer thread. While nothing is limited the timer only paces the table refresh, whose
// moment hardly matters: let the kernel fold its wake-up into others. The duty cycle sleeps until
// its exact deadlines, so it gets no slack at all (1 ns is the least the kernel takes: 0 would
// restore its 50 µs default).
void CPULimiter::setTimerSlackLocked() {
  constexpr unsigned long kIdleSlack_ns = 50'000'000;
  constexpr unsigned long kNoSlack_ns = 1;
  const bool idle = m_pids.empty();
  if (m_idle_slack && *m_idle_slack == idle) return;
  setCurrentThreadTimerSlack_ns(idle ? kIdleSlack_ns : kNoSlack_ns);
  m_idle_slack = idle;
}

void CPULimiter::setTimerPeriodLocked() {
  const int64_t period_us = tickIntervalLocked_ms() * 1000;
  if (m_timer->period_us() != period_us) m_timer->setPeriod_us(period_us);
}

int64_t CPULimiter::limiterInterval_ms() { return lockedCopy(m_mutex, m_limiter_interval_ms); }

// The timer fires every tick interval, a little late at times. Each step is due when its interval
// has passed less half a timer period, so that a step whose interval equals the period runs at every
// tick instead of skipping one whenever the previous tick ran late.
bool CPULimiter::due(const Timeval& last, int64_t interval_ms, const Timeval& now) const {
  return last.elapsedUntil(now) >= interval_ms * 1000 - tickIntervalLocked_ms() * 500;
}

void CPULimiter::tick() {
  MutexLock lock(m_mutex);
  const Timeval now;
  const bool adjust = due(m_adjuster_lasttime, m_adjuster_interval_ms, now);
  if (!m_pids.empty()) {
    m_limiter_lasttime = now;
    limiterTickLocked(now, adjust);
  }
  if (m_options.process_table && due(m_monitor_lasttime, m_processes_interval_ms, now)) {
    m_monitor_lasttime = now;
    refreshAsWantedLocked();
  }
  if (adjust) {
    m_adjuster_lasttime = now;
    adjusterRunLocked();
  }
  setTimerPeriodLocked();
  planNextWakeLocked();
  setTimerSlackLocked();
}

std::optional<int64_t> CPULimiter::nextWake_us() { return lockedCopy(m_mutex, m_next_wake_us); }

void CPULimiter::refresh() {
  MutexLock lock(m_mutex);
  refreshLocked();
  planNextWakeLocked();  // frontmost processes may have changed
}

void CPULimiter::updateMachineSplit() {
  MutexLock lock(m_mutex);
  updateMachineSplitLocked();
}

std::optional<procinfo> CPULimiter::rowFor(int32_t pid) {
  MutexLock lock(m_mutex);
  auto it = m_processes.find(pid);
  if (it == m_processes.end()) return std::nullopt;
  return it->second;
}

std::map<int32_t, procinfo> CPULimiter::processes() { return lockedCopy(m_mutex, m_processes); }

usageInfo CPULimiter::usage() { return lockedCopy(m_mutex, m_usage_info); }

rwInfo CPULimiter::diskRates() { return lockedCopy(m_mutex, m_rw_info); }

int CPULimiter::translatedCount() { return lockedCopy(m_mutex, m_translated_count); }

void CPULimiter::setLimitFrontmost(bool limit_frontmost) {
  {
    MutexLock lock(m_mutex);
    m_limit_frontmost = limit_frontmost;
    refreshAsWantedLocked();
    planNextWakeLocked();
  }
}

}  // namespace pelmora
