#pragma once
// /proc/PID/stat (and /proc/PID/task/TID/stat), the one parser of it: every reader of a process's
// state, start time, nice value or flags goes through it. Pure: text in, record out.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pelmora {

// /proc/PID/stat, by field.
struct ProcPidStat {
  int pid = 0;
  std::string comm;
  char state = '?';
  int ppid = 0;
  int pgrp = 0;
  int tty_nr = 0;
  int tpgid = 0;
  uint32_t flags = 0;  // PF_* bits
  uint64_t minflt = 0;
  uint64_t majflt = 0;
  uint64_t utime_ticks = 0;
  uint64_t stime_ticks = 0;
  uint64_t cutime_ticks = 0;
  uint64_t cstime_ticks = 0;
  int64_t priority = 0;
  int64_t nice = 0;
  int64_t num_threads = 0;
  uint64_t starttime_ticks = 0;  // since boot
  uint64_t vsize_bytes = 0;
  uint64_t rss_pages = 0;  // approximate: the per-CPU counters unsummed (statm is exact)
};

// PF_KTHREAD in `flags`: the process is a kernel thread.
inline constexpr uint32_t kPFKthread = 0x00200000;

// None when the text is malformed: no command in parentheses, or fewer than the 24 fields up to rss.
std::optional<ProcPidStat> parseProcPidStat(std::string_view text);

}  // namespace pelmora
