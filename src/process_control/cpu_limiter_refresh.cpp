// The process-table refresh and the whole machine's processor split.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <set>

#include "helper_link/pelmora.h"
#include "process_control/cpu_limiter.h"
#include "process_control/limiter_math.h"
#include "process_control/proc_settings.h"
#include "process_control/process_rates.h"
#include "support/broadcast.h"
#include "support/logger.h"
#include "support/pid.h"
#include "support/power_assertion.h"
#include "support/proc_stat.h"
#include "support/sys_attr.h"

namespace pelmora {
namespace {

int64_t cpuTime_us(const proc_taskinfo& t) {
  // The helper's records are in nanoseconds (timebase 1/1).
  uint64_t ns = 0;
  if (__builtin_add_overflow(t.pti_total_user, t.pti_total_system, &ns) || ns / 1000 > INT64_MAX) {
    std::fprintf(stderr, "pelmora: processor time overflowed\n");
    std::abort();
  }
  return static_cast<int64_t>(ns / 1000);
}

int64_t checkedSize(uint64_t value) {
  if (value > static_cast<uint64_t>(INT64_MAX)) {
    std::fprintf(stderr, "pelmora: process size out of range\n");
    std::abort();
  }
  return static_cast<int64_t>(value);
}

}  // namespace

void CPULimiter::refreshAsWantedLocked() {
  if (tableWantedLocked()) {
    refreshLocked();
    updateMachineSplitLocked();
  } else if (lightPassWantedLocked()) {
    lightRefreshLocked();
  }
}

bool CPULimiter::lightPassWantedLocked() {
  const bool asked = m_owners_asked;
  m_owners_asked = false;
  return asked || !m_pids.empty() || m_proc_settings->remembersAny();
}

// Without a table on screen: only new processes are read, and only for who owns them and what they
// are called, which is what saved limits and priorities and the process counts need. Rows carry no
// figures, so the next full refresh starts its rates afresh.
void CPULimiter::lightRefreshLocked() {
  ++m_refresh_counts.light;
  std::map<int32_t, procinfo> table;
  std::vector<int32_t> fresh;
  const bool walked = m_proclist.iterate([&](int32_t pid) {
    if (pid < 0) return;
    if (auto old = m_processes.find(pid); old != m_processes.end())
      table[pid] = std::move(old->second);
    else
      fresh.push_back(pid);
  });
  if (!walked) Log("proclist.iterate failed");
  for (auto& [pid, record] : m_helper.records(fresh, m_helper.authorised())) {
    if (record.name.empty()) continue;
    procinfo row;
    row.name = record.name;
    fillNewRow(row, pid, record.all);
    applySavedSettingsLocked(row);
    table[pid] = std::move(row);
  }
  m_translated_count = m_proclist.translatedCount();
  for (auto& [pid, limited] : m_pids) limited.frontmost = PID(pid, m_root).isFrontmost();
  std::erase_if(m_netuse, [&](const auto& entry) { return !table.count(entry.first); });
  m_processes = std::move(table);
  m_rows_have_figures = false;
}

void CPULimiter::refreshLocked() {
  ++m_refresh_counts.full;
  std::map<int32_t, procinfo> table;
  m_translated_count = 0;
  const auto awake = PowerAssertion::assertions();
  // Via the helper exactly when authorised: it can read every process's counters, while an
  // unauthorised client reads /proc itself, with its own rights and without round trips.
  const bool via_helper = m_helper.authorised();
  std::vector<int32_t> pids;
  const bool walked = m_proclist.iterate([&](int32_t pid) {
    if (pid < 0)
      Log("proclist.iterate failed");
    else
      pids.push_back(pid);
  });
  if (!walked) Log("proclist.iterate failed");
  const auto records = m_helper.records(pids, via_helper);
  rwInfo totals;
  std::set<int32_t> unreadable;
  for (int32_t pid : pids) {
    const auto record = records.find(pid);
    if (record == records.end() || !refreshOne(pid, record->second, awake, table, totals)) unreadable.insert(pid);
  }
  // A process we may not read stays unreadable: its line is logged when it starts failing, not at
  // every refresh.
  for (int32_t pid : unreadable)
    if (!m_unreadable.count(pid) && !records.count(pid)) Log("procinfo_taskallinfo failed");
  m_unreadable = std::move(unreadable);
  m_translated_count = m_proclist.translatedCount();
  std::erase_if(m_netuse, [&](const auto& entry) { return !table.count(entry.first); });
  m_rw_info = totals;
  m_processes = std::move(table);
  m_rows_have_figures = true;
  Broadcast(kProcessesUpdatedBroadcast, true);
}

bool CPULimiter::refreshOne(int32_t pid, const ProcessRecord& record, const std::map<int32_t, bool>& awake,
                            std::map<int32_t, procinfo>& table, rwInfo& totals) {
  const proc_taskallinfo& info = record.all;
  // This row's own moment: the records of many processes take a good part of a second to read, and
  // a rate over one shared timestamp would be off by the time between the two reads of each row.
  const Timeval now = Timeval::fromMicroseconds(record.read_at_us);
  const auto old = m_processes.find(pid);
  const bool is_new = old == m_processes.end();
  procinfo row;
  if (!is_new) {
    row = old->second;
  } else {
    row.update = now;
    if (record.name.empty()) {
      if (!m_unreadable.count(pid)) Log("procinfo_pidname failed");
      return false;
    }
    row.name = record.name;
    fillNewRow(row, pid, info);
  }
  row.totalCPU = cpuTime_us(info.ptinfo);
  auto a = awake.find(pid);
  row.preventSleep = a != awake.end() && a->second;
  row.kind = m_proclist.kind(pid);
  row.threads = info.ptinfo.pti_threadnum;
  row.memVirtual = checkedSize(info.ptinfo.pti_virtual_size);
  row.memRes = checkedSize(info.ptinfo.pti_resident_size);
  if (record.usage) {
    row.totalIdleWakeups = record.usage->ri_pkg_idle_wkups;
    row.totalBytesRead = record.usage->ri_diskio_bytesread;
    row.totalBytesWrite = record.usage->ri_diskio_byteswritten;
  }
  if (auto lim = m_pids.find(pid); lim != m_pids.end()) {
    lim->second.uid = row.uid;
    lim->second.frontmost = PID(pid, m_root).isFrontmost();
    // The duty cycle adds a stopped spell when it ends (it sleeps until then): the spell under way
    // counts up to this row's moment.
    const pidInfo& held = lim->second;
    row.totalTimeStopped = held.stopped && held.stopTime.elapsedUntil(now) > 0
                               ? checkedAdd(held.totalTimeStopped, held.stopTime.elapsedUntil(now))
                               : held.totalTimeStopped;
  }
  if (auto net = m_netuse.find(pid); net != m_netuse.end()) {
    row.netReadPerSec = net->second.rx_rate.current();
    row.netWritePerSec = net->second.tx_rate.current();
  }
  if (is_new) {
    applySavedSettingsLocked(row);
  } else if (m_rows_have_figures) {
    updateProcessRates(row, old->second, now, m_processes_interval_ms);
    totals.readPerSec += row.readPerSec.current();
    totals.writePerSec += row.writePerSec.current();
    m_energy.energyImpact(row);
  } else {
    clearProcessRates(row);  // the totals it would be measured against were not read
  }
  row.update = now;
  table[pid] = std::move(row);
  return true;
}

void CPULimiter::fillNewRow(procinfo& row, int32_t pid, const proc_taskallinfo& info) {
  row.pid = pid;
  row.uid = info.pbsd.pbi_uid;
  row.user = SysAttr::username(row.uid);
  row.ppid = static_cast<int32_t>(info.pbsd.pbi_ppid);
  row.bundlePath = PID(pid, m_root).bundlePath();
  row.command = PID(pid, m_root).commandLine();
  row.startTime = info.pbsd.pbi_start_tvsec * 1'000'000'000ULL + info.pbsd.pbi_start_tvusec * 1000ULL;
}

void CPULimiter::applySavedSettingsLocked(const procinfo& row) {
  // The lists are kept by program name: applying them to another user's process of the same name
  // would limit someone who never asked for it. Limiting another user's process stays an explicit act.
  if (row.uid != m_uid) return;
  const std::string power = m_proc_settings->power();
  // A process born inside a held tree is held by the tree, whatever its own name remembers.
  if (auto share = m_proc_settings->limitFor(row.name, power); share && !treeOfLocked(row.pid)) {
    // The new row is not in the table yet, so setLimit does not write the saved list again.
    setLimit(row.pid, *share, m_proc_settings->limitHoldsTree(row.name, power));
  }
  if (auto priority = m_proc_settings->priorityFor(row.name, power)) setPriorityLocked(row.pid, *priority);
}

std::optional<cpu_buckets> CPULimiter::readMachineTicks() const {
  const auto text = m_root.readProc("stat");
  const auto stat = text ? ProcStat::parse(*text) : std::nullopt;
  if (!stat || !stat->total) return std::nullopt;
  return bucketTicks(*stat->total);
}

void CPULimiter::updateMachineSplitLocked() {
  const auto now = readMachineTicks();
  if (!now) return;
  const cpu_buckets& before = m_usage_ticks;
  if (now->total() != before.total()) {
    const auto delta = [](uint64_t later, uint64_t earlier) {
      return static_cast<double>(later) - static_cast<double>(earlier);
    };
    const double d = delta(now->total(), before.total());
    m_usage_info.system = delta(now->system, before.system) / d;
    m_usage_info.user = delta(now->user, before.user) / d;
    m_usage_info.idle = delta(now->idle, before.idle) / d;
  }
  m_usage_ticks = *now;
}

}  // namespace pelmora
