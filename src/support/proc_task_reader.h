#pragma once
// Fills the process records exchanged with the helper (proc_taskinfo, proc_taskallinfo,
// rusage_info_v3) and the open-file map of a process from /proc. The daemon answers its queries
// with it; a process may also read its own user's processes directly, without the daemon.
// Parsing (text in, record out) and the arithmetic are pure functions, apart from the reader.
#include <sys/types.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "support/kernel_records.h"
#include "support/proc_pid_stat.h"
#include "support/sys_root.h"

namespace pelmora {

// /proc/PID/status, by key.
struct ProcStatus {
  std::string name;
  uint32_t uid[4] = {};  // real, effective, saved, file system
  uint32_t gid[4] = {};
  int64_t threads = 0;
  uint64_t voluntary_ctxt_switches = 0;
  uint64_t nonvoluntary_ctxt_switches = 0;
};

struct ProcStatm {
  uint64_t size_pages = 0;
  uint64_t resident_pages = 0;
};

struct ProcIo {
  uint64_t read_bytes = 0;
  uint64_t write_bytes = 0;
};

std::optional<ProcStatus> parseProcStatus(std::string_view text);
std::optional<ProcStatm> parseProcStatm(std::string_view text);
std::optional<ProcIo> parseProcIo(std::string_view text);
// "btime" of /proc/stat: the boot time in seconds since the epoch.
std::optional<uint64_t> parseBootTime(std::string_view proc_stat_text);

// Arithmetic.
uint64_t ticksToNs(uint64_t ticks, long clk_tck);
// The clock id of a whole process's CPU clock, made as clock_getcpuclockid makes it (the pid's
// complement above the clock type, CPUCLOCK_SCHED = 2) but without the clock_getres call glibc adds
// to check that the process exists: clock_gettime fails by itself once it is gone.
constexpr clockid_t processCpuClockId(pid_t pid) {
  return static_cast<clockid_t>(~static_cast<unsigned>(pid) << 3) | 2;
}
struct CpuSplit {
  uint64_t user_ns = 0;
  uint64_t system_ns = 0;
};
// Splits a total CPU time by the ratio of the tick counts (all to user when both are zero).
CpuSplit splitCpuTime(uint64_t total_ns, uint64_t utime_ticks, uint64_t stime_ticks);

// Everything the records are made from, gathered by the reader.
struct ProcFacts {
  ProcPidStat stat;
  ProcStatus status;
  ProcStatm statm;
  ProcIo io;                     // zero when /proc/PID/io is not readable
  uint64_t cpu_total_ns = 0;     // from the process CPU clock (falls back to the tick counts)
  uint64_t boot_time_s = 0;
  long clk_tck = 100;
  uint64_t page_bytes = 4096;
  uint64_t idle_wakeups = 0;     // voluntary context switches over all threads
  uint32_t open_files = 0;
  std::string exe_name;          // base name of /proc/PID/exe, empty when unreadable
};

proc_taskinfo makeTaskInfo(const ProcFacts& facts);
proc_bsdinfo makeBsdInfo(const ProcFacts& facts);
rusage_info_v3 makeRusage(const ProcFacts& facts);

// Files of one process that a caller has just read (null: not read), handed to the reader so that
// one request reads each file once.
struct KnownProcFiles {
  const ProcPidStat* stat = nullptr;
  const ProcStatus* status = nullptr;
};

// Everything a process-table row needs, from one pass over the process's files.
struct ProcessRecord {
  proc_taskallinfo all{};
  std::optional<rusage_info_v3> usage;  // none when the caller may not have it
  std::string name;                     // as pidName() answers
  // When the files were read, on the monotonic clock shared by every process of the machine
  // (Timeval's scale): a row's rate runs from its own read, not from a batch's.
  int64_t read_at_us = 0;
};

class ProcTaskReader {
 public:
  explicit ProcTaskReader(SysRoot root = SysRoot::current());
  ProcTaskReader(const ProcTaskReader& other) : m_root(other.m_root) {}
  ProcTaskReader& operator=(const ProcTaskReader&) = delete;

  // Each returns the record, or none with an errno value in *error (ESRCH when the process is gone,
  // EACCES when its files cannot be read).
  // With `known`, a /proc/PID/stat (and status) just read for the same pid, e.g. for the caller's
  // checks, is used instead of reading it again.
  std::optional<proc_taskinfo> taskInfo(pid_t pid, int* error = nullptr, KnownProcFiles known = {}) const;
  std::optional<proc_taskallinfo> taskAllInfo(pid_t pid, int* error = nullptr, KnownProcFiles known = {}) const;
  std::optional<rusage_info_v3> rusage(pid_t pid, int* error = nullptr, KnownProcFiles known = {}) const;
  // The three above and the name together, each file of the process read once.
  std::optional<ProcessRecord> record(pid_t pid, int* error = nullptr, KnownProcFiles known = {}) const;
  // Descriptor number to the path its link names.
  std::optional<std::map<int, std::string>> pidFiles(pid_t pid, int* error = nullptr) const;
  // The executable's base name, else the command name; none when the process is gone.
  std::optional<std::string> pidName(pid_t pid) const;

  std::optional<ProcPidStat> readStat(pid_t pid) const;
  std::optional<ProcStatus> readStatus(pid_t pid) const;
  // Base name of /proc/PID/exe; empty for kernel threads and unreadable links.
  std::string exeName(pid_t pid) const;

 private:
  enum Extras { kBasic = 0, kWakeups = 1, kIo = 2, kBsd = 4 };
  std::optional<ProcFacts> gather(pid_t pid, int extras, int* error, KnownProcFiles known) const;
  uint64_t idleWakeups(pid_t pid, const ProcStatus& status) const;
  uint32_t openFiles(pid_t pid, int proc_dir_fd) const;
  // True when reading the running system's /proc, not a fixture tree.
  bool liveProc() const;
  std::string procPath(pid_t pid, std::string_view leaf) const;
  uint64_t bootTime() const;

  SysRoot m_root;
  mutable std::atomic<uint64_t> m_boot_time_s{0};
};

}  // namespace pelmora
