#pragma once
// CPULimiter owns the system's view of its processes: the process table with per-second rates, the
// whole machine's processor split and disk rates, per-process network use (from pelmora-nettop),
// and the duty-cycle limiter with its adjuster, which hold chosen processes to a share of one
// processor by stopping (SIGSTOP) and continuing (SIGCONT) them. Every per-process query, signal and
// priority change goes through the helper client, so other users' processes are seen and limited
// when the daemon runs; without it the client answers in-process with the user's own rights.
//
// Threads: one timer thread ("net.tandrel.pelmora.timer") runs the limiter tick, the table refresh
// and the adjuster, each at its own interval, under m_mutex; nettop output arrives on its reader
// thread and is parsed under m_mutex; the application calls the public operations from the main
// thread. Lock order: m_mutex before the locks of ProcSettings and PowerMonitor.
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "process_control/pid_info.h"
#include "process_control/pm_energy.h"
#include "process_control/process_cpu_clock.h"
#include "process_control/process_tree.h"
#include "process_control/procinfo.h"
#include "process_control/stop_journal.h"
#include "support/kernel_records.h"
#include "support/mutex.h"
#include "support/proc_stat.h"
#include "support/proc_task_reader.h"
#include "support/process_list.h"
#include "support/settings_keys.h"
#include "support/sys_root.h"
#include "support/timeval.h"

namespace pelmora {

class DefaultSettings;
class Execute;
class Pelmora;
class PowerMonitor;
class ProcSettings;
class TimerQueue;

inline constexpr const char* kProcessesUpdatedBroadcast = "net.tandrel.pelmora.processesupdated";
inline constexpr const char* kPrefsChangedBroadcast = "net.tandrel.pelmora.prefschanged";

// Process counts by owner, for the sampler.
struct CPULimiterOptions {
  std::string nettop_path;         // empty: found next to this program or in the libexec folder
  std::filesystem::path journal_dir;  // empty: the state folder's "held"
  // False for a limiter that only limits (the command line's "limit"): no process table is
  // refreshed and no network tool runs, since nothing shows them.
  bool process_table = true;
};

// How many passes of each kind the timer or a caller ran (tests and benchmarks count them).
struct RefreshCounts {
  uint64_t full = 0;
  uint64_t light = 0;
};

class CPULimiter {
 public:
  using Options = CPULimiterOptions;

  // The application's instance: the shared helper client, settings and power monitor.
  static CPULimiter& shared();
  // Tests and tools: an explicit helper client, /proc root and settings store. Its power-source
  // lists follow a power monitor of its own that is not monitoring.
  CPULimiter(Pelmora& helper, SysRoot root, DefaultSettings& settings, Options options = {});
  ~CPULimiter();
  CPULimiter(const CPULimiter&) = delete;
  CPULimiter& operator=(const CPULimiter&) = delete;

  // Starts the timer (if it is not running), the settings listener and the network tool.
  bool start();
  // Stops the network tool (the timer keeps running; limits stay in force).
  void stop();
  // Stops the timer too (quit, tests). Call continueAll() as well to release held processes.
  void stopTimer();

  int64_t processesInterval_ms();
  void setProcessesInterval_ms(int64_t interval_ms);
  int64_t tickInterval_ms();

  // Rebuilds the table now (normally the timer does it).
  void refresh();
  // For the application: every process's figures, and the network tool, are gathered only while
  // something shows the table. Without a client, a light pass notes the owner and name of new
  // processes, and only while something needs them: saved limits or priorities to apply, a
  // limited process, or someone asking for the owners. Off by default (the command line, tests).
  void setTableOnDemand(bool on_demand);
  // A window that shows the table registers while it is shown. The first client starts the network
  // tool and has the table refreshed at once; when the last leaves, the tool stops and the timer
  // falls back to the light pass.
  void addTableClient();
  void removeTableClient();
  bool tableWanted();
  // The owners for the process counts; asking keeps the light pass going while no table is shown.
  ProcessCensus owners();
  RefreshCounts refreshCounts();
  // Updates the whole machine's processor split since the last update (the timer does it after
  // each refresh).
  void updateMachineSplit();
  // The timer's action: the duty cycle's steps that are due, the refresh and the adjuster when
  // their intervals have passed. While something is limited the timer then sleeps until the next
  // moment anything is due (a stop, a continue, the adjuster, the refresh), on the grid of limiter
  // ticks, instead of waking at every tick.
  void tick();
  // The moment (Timeval microseconds) the timer was last asked to run next; none while nothing is
  // limited (the timer then runs at its period). Tests drive a fake clock from wake to wake.
  std::optional<int64_t> nextWake_us();

  std::optional<procinfo> rowFor(int32_t pid);
  std::map<int32_t, procinfo> processes();
  usageInfo usage();
  rwInfo diskRates();
  int translatedCount();

  // The mutex the caller of setLimit() must hold.
  Mutex& mutex() { return m_mutex; }
  // Limits `pid` to `share` of one processor; with `tree`, the process and all its descendants,
  // present and future, share it together. The caller holds mutex(). A process inside a held tree
  // is held by the tree and cannot be limited apart.
  void setLimit(int32_t pid, double share, bool tree = false);
  void clearLimit(int32_t pid);
  void clearAllLimits();
  void continueAll();
  std::optional<double> limitFor(int32_t pid);
  std::map<int32_t, pidInfo> limits();
  std::map<int32_t, adjustInfo> adjustments();
  // The held trees: first process -> every member (itself included while it lives).
  std::map<int32_t, std::set<int32_t>> trees();
  // The first process of the tree that holds `pid`, if one does.
  std::optional<int32_t> treeOf(int32_t pid);
  void setLimitFrontmost(bool limit_frontmost);

  // Re-reads the PID settings and intervals (also on "net.tandrel.pelmora.prefschanged").
  void loadPIDSettings();
  // Sets the priority (nice, -20..20) of a process in the table and remembers it by name.
  void renice(int32_t pid, int priority);

  // Network tool output (its reader thread; tests feed it directly).
  void handleNettopChunk(std::string_view chunk);
  std::map<int32_t, netUsage> netUse();
  bool nettopRunning();

  ProcSettings& procSettings() { return *m_proc_settings; }
  int64_t limiterInterval_ms();

 private:
  CPULimiter(Pelmora& helper, SysRoot root, DefaultSettings& settings, PowerMonitor* monitor, Options options);

  // cpu_limiter.cpp
  void setTimerPeriodLocked();
  int64_t tickIntervalLocked_ms() const;
  bool due(const Timeval& last, int64_t interval_ms, const Timeval& now) const;
  void startNettop();
  void restartNettop();
  void saveProcessesIntervalLocked();
  void loadPIDGainsLocked();
  void setTimerSlackLocked();
  // The duty cycle's grid of ticks.
  void restartGridLocked(const Timeval& now);
  int64_t gridTickLocked(const Timeval& now) const;
  int64_t gridTime_us(int64_t tick) const;
  // The first grid tick at or after a moment.
  int64_t gridTickAtOrAfterLocked(int64_t time_us) const;
  int64_t dueTickLocked(int32_t pid, const pidInfo& record);
  // Asks the timer for the next moment anything is due.
  void planNextWakeLocked();
  // Online processors for the adjuster, asked of the helper again only when they may have changed.
  double onlineCpusLocked(const Timeval& now);
  // cpu_limiter_refresh.cpp
  void refreshLocked();
  bool tableWantedLocked() const;
  bool lightPassWantedLocked();
  // The table refresh that someone needs now: full, light or none.
  void refreshAsWantedLocked();
  void lightRefreshLocked();
  bool refreshOne(int32_t pid, const ProcessRecord& record, const std::map<int32_t, bool>& awake,
                  std::map<int32_t, procinfo>& table, rwInfo& totals);
  void fillNewRow(procinfo& row, int32_t pid, const proc_taskallinfo& info);
  void applySavedSettingsLocked(const procinfo& row);
  void updateMachineSplitLocked();
  // The whole machine's processor time in ticks: only its split is shown, so the unit cancels.
  std::optional<cpu_buckets> readMachineTicks() const;
  // cpu_limiter_limits.cpp
  // Steps the limited processes that are due at `now` (with `all`, every one: the adjuster that
  // follows reads their totals).
  void limiterTickLocked(const Timeval& now, bool all);
  // One due process's step: measure, credit, signal. Drops the record of a process that is gone
  // and removes the limit of one that refused the signal.
  void stepLocked(std::map<int32_t, pidInfo>::iterator it, const std::set<int32_t>* tree_found,
                  const std::set<int32_t>& released, int64_t tick, const Timeval& now);
  void removeLimitLocked(int32_t pid);
  std::optional<int64_t> measureCPU_us(int32_t pid);
  bool sendSignalLocked(int32_t pid, int signal);
  void saveLimitNameLocked(int32_t pid, std::optional<double> share, bool tree = false);
  // cpu_limiter_tree.cpp
  // The process, or every member of the tree it heads; false when none took the signal.
  bool signalLocked(int32_t pid, int signal);
  void startTreeLocked(int32_t root, pidInfo& record);
  // Continues and lets go of every member but the first process, and forgets the tree.
  void endTreeLocked(int32_t root);
  void forgetMemberLocked(int32_t pid);
  // One pass over the process links: each tree's members this tick. A limit of a process found
  // inside a tree gives way to the tree (`released`: processes whose own limit held them stopped).
  std::map<int32_t, std::set<int32_t>> growTreesLocked(std::set<int32_t>& released);
  // The group's new summed processor time, after joining and letting go members; none when no
  // member is left.
  std::optional<int64_t> measureTreeLocked(int32_t root, const pidInfo& record, const std::set<int32_t>& found,
                                           const std::set<int32_t>& released);
  std::optional<int32_t> treeOfLocked(int32_t pid) const;
  // cpu_limiter_adjuster.cpp
  void adjusterRunLocked();
  void reniceLocked(int32_t pid, int priority);
  void setPriorityLocked(int32_t pid, int priority);

  Pelmora& m_helper;
  SysRoot m_root;
  DefaultSettings& m_settings;
  Options m_options;
  std::unique_ptr<PowerMonitor> m_own_monitor;

  int64_t m_limiter_interval_ms = keys::kLimiterInterval_ms.def;
  int64_t m_processes_interval_ms = keys::kProcessesInterval_ms.def;
  int64_t m_adjuster_interval_ms = keys::kAdjusterInterval_ms.def;
  std::unique_ptr<TimerQueue> m_timer;
  Timeval m_limiter_lasttime;
  Timeval m_monitor_lasttime;
  Timeval m_adjuster_lasttime;
  cpu_buckets m_usage_ticks;
  usageInfo m_usage_info;
  rwInfo m_rw_info;
  PMEnergy m_energy;
  std::map<int32_t, pidInfo> m_pids;
  std::map<int32_t, ProcessCpuClock> m_cpu_clocks;  // of the limited processes, on the live /proc
  Timeval m_grid_origin;                      // tick 0 of the duty cycle's grid
  std::map<int32_t, DutySchedule> m_duty;     // of the processes in m_pids
  std::vector<int32_t> m_due;                 // the limiter tick's due processes, ascending
  std::optional<int64_t> m_next_wake_us;
  // The adjuster's processor count, with the online list it was asked for, and when that was read.
  std::optional<double> m_online_cpus;
  std::optional<std::string> m_online_text;
  Timeval m_online_checked;
  std::optional<bool> m_idle_slack;  // the timer thread's slack: the idle one, or the default
  std::map<int32_t, procinfo> m_processes;
  std::unique_ptr<ProcSettings> m_proc_settings;
  std::map<int32_t, adjustInfo> m_adjustments;
  std::map<int32_t, treeInfo> m_trees;  // by first process; each also has its record in m_pids
  std::unique_ptr<Execute> m_nettop;
  std::string m_nettop_buffer;
  std::map<int32_t, netUsage> m_netuse;
  bool m_limit_frontmost = false;
  uint32_t m_uid;
  int m_translated_count = 0;
  bool m_usePIDControl = false;
  double m_kp = 0.5;
  double m_ki = 0.25;
  double m_kd = 0.0125;
  ProcessList m_proclist;
  ProcessTree m_process_tree;  // parent links, read only while a tree is held
  StopJournal m_journal;
  bool m_listening = false;
  std::set<int32_t> m_unreadable;  // processes the last refresh could not read
  bool m_table_on_demand = false;
  int m_table_clients = 0;
  bool m_owners_asked = false;       // since the last light pass
  bool m_rows_have_figures = false;  // false after a light pass: the next full one computes no rates
  RefreshCounts m_refresh_counts;
  Mutex m_mutex;
};

}  // namespace pelmora
