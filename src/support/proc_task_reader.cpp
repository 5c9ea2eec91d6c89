#include "support/proc_task_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "support/text.h"
#include "support/timeval.h"
#include "support/unique_fd.h"

namespace pelmora {
namespace {

// The value after "Key:" on the line that starts with key, within text.
std::optional<std::string_view> keyedValue(std::string_view text, std::string_view key) {
  for (std::string_view line : split(text, '\n', false)) {
    if (line.size() > key.size() && startsWith(line, key) && line[key.size()] == ':') {
      return trim(line.substr(key.size() + 1));
    }
  }
  return std::nullopt;
}

bool parseIdRow(std::string_view value, uint32_t out[4]) {
  auto parts = splitWhitespace(value);
  if (parts.size() != 4) return false;
  for (size_t i = 0; i < 4; ++i) {
    auto v = parseUInt64(parts[i]);
    if (!v || *v > UINT32_MAX) return false;
    out[i] = static_cast<uint32_t>(*v);
  }
  return true;
}

int32_t clamp32(uint64_t v) { return static_cast<int32_t>(std::min<uint64_t>(v, INT32_MAX)); }

void copyName(char* out, size_t size, const std::string& name) {
  std::memset(out, 0, size);
  std::memcpy(out, name.data(), std::min(name.size(), size - 1));
}

std::optional<std::string> readLinkAt(int dir_fd, const char* path) {
  char buffer[PATH_MAX];
  const ssize_t n = ::readlinkat(dir_fd, path, buffer, sizeof buffer);
  if (n < 0) return std::nullopt;
  return std::string(buffer, static_cast<size_t>(n));
}

std::optional<std::string> readLink(const std::string& path) { return readLinkAt(AT_FDCWD, path.c_str()); }

std::string baseName(const std::string& path) {
  std::string name = path;
  // A replaced executable reads "/usr/bin/foo (deleted)".
  constexpr std::string_view kDeleted = " (deleted)";
  if (name.size() > kDeleted.size() && name.ends_with(kDeleted)) name.resize(name.size() - kDeleted.size());
  const auto slash = name.rfind('/');
  return slash == std::string::npos ? name : name.substr(slash + 1);
}

}  // namespace

std::optional<ProcStatus> parseProcStatus(std::string_view text) {
  ProcStatus s;
  auto name = keyedValue(text, "Name");
  auto uid = keyedValue(text, "Uid");
  auto gid = keyedValue(text, "Gid");
  if (!name || !uid || !gid || !parseIdRow(*uid, s.uid) || !parseIdRow(*gid, s.gid)) return std::nullopt;
  s.name = std::string(*name);
  if (auto v = keyedValue(text, "Threads")) s.threads = parseInt64(*v).value_or(0);
  if (auto v = keyedValue(text, "voluntary_ctxt_switches")) s.voluntary_ctxt_switches = parseUInt64(*v).value_or(0);
  if (auto v = keyedValue(text, "nonvoluntary_ctxt_switches")) {
    s.nonvoluntary_ctxt_switches = parseUInt64(*v).value_or(0);
  }
  return s;
}

std::optional<ProcStatm> parseProcStatm(std::string_view text) {
  auto parts = splitWhitespace(text);
  if (parts.size() < 2) return std::nullopt;
  auto size = parseUInt64(parts[0]), resident = parseUInt64(parts[1]);
  if (!size || !resident) return std::nullopt;
  return ProcStatm{*size, *resident};
}

std::optional<ProcIo> parseProcIo(std::string_view text) {
  auto read = keyedValue(text, "read_bytes");
  auto write = keyedValue(text, "write_bytes");
  if (!read || !write) return std::nullopt;
  auto r = parseUInt64(*read), w = parseUInt64(*write);
  if (!r || !w) return std::nullopt;
  return ProcIo{*r, *w};
}

std::optional<uint64_t> parseBootTime(std::string_view text) {
  for (std::string_view line : split(text, '\n', false)) {
    auto parts = splitWhitespace(line);
    if (parts.size() == 2 && parts[0] == "btime") return parseUInt64(parts[1]);
  }
  return std::nullopt;
}

uint64_t ticksToNs(uint64_t ticks, long clk_tck) {
  if (clk_tck <= 0) return 0;
  return static_cast<uint64_t>(static_cast<unsigned __int128>(ticks) * 1'000'000'000u / static_cast<uint64_t>(clk_tck));
}

CpuSplit splitCpuTime(uint64_t total_ns, uint64_t utime_ticks, uint64_t stime_ticks) {
  const unsigned __int128 ticks = static_cast<unsigned __int128>(utime_ticks) + stime_ticks;
  if (ticks == 0) return {total_ns, 0};
  const auto user = static_cast<uint64_t>(static_cast<unsigned __int128>(total_ns) * utime_ticks / ticks);
  return {user, total_ns - user};
}

proc_taskinfo makeTaskInfo(const ProcFacts& f) {
  proc_taskinfo t{};
  const CpuSplit cpu = splitCpuTime(f.cpu_total_ns, f.stat.utime_ticks, f.stat.stime_ticks);
  t.pti_virtual_size = f.statm.size_pages * f.page_bytes;
  t.pti_resident_size = f.statm.resident_pages * f.page_bytes;
  t.pti_total_user = cpu.user_ns;
  t.pti_total_system = cpu.system_ns;
  // Linux keeps no cheap per-live-thread total apart from the process's own.
  t.pti_threads_user = cpu.user_ns;
  t.pti_threads_system = cpu.system_ns;
  t.pti_faults = clamp32(f.stat.minflt + f.stat.majflt);
  t.pti_pageins = clamp32(f.stat.majflt);
  t.pti_csw = clamp32(f.status.voluntary_ctxt_switches + f.status.nonvoluntary_ctxt_switches);
  t.pti_threadnum = static_cast<int32_t>(std::clamp<int64_t>(f.stat.num_threads, 0, INT32_MAX));
  t.pti_numrunning = f.stat.state == 'R' ? 1 : 0;
  t.pti_priority = static_cast<int32_t>(std::clamp<int64_t>(f.stat.priority, INT32_MIN, INT32_MAX));
  return t;
}

proc_bsdinfo makeBsdInfo(const ProcFacts& f) {
  proc_bsdinfo b{};
  switch (f.stat.state) {
    case 'R': b.pbi_status = 2; break;             // running
    case 'T': case 't': b.pbi_status = 4; break;   // stopped
    case 'Z': case 'X': b.pbi_status = 5; break;   // zombie
    default: b.pbi_status = 3; break;              // sleeping
  }
  b.pbi_pid = static_cast<uint32_t>(f.stat.pid);
  b.pbi_ppid = static_cast<uint32_t>(f.stat.ppid);
  b.pbi_uid = f.status.uid[1];
  b.pbi_gid = f.status.gid[1];
  b.pbi_ruid = f.status.uid[0];
  b.pbi_rgid = f.status.gid[0];
  b.pbi_svuid = f.status.uid[2];
  b.pbi_svgid = f.status.gid[2];
  copyName(b.pbi_comm, sizeof b.pbi_comm, f.stat.comm);
  copyName(b.pbi_name, sizeof b.pbi_name, f.exe_name.empty() ? f.stat.comm : f.exe_name);
  b.pbi_nfiles = f.open_files;
  b.pbi_pgid = static_cast<uint32_t>(f.stat.pgrp);
  b.e_tdev = static_cast<uint32_t>(f.stat.tty_nr);
  b.e_tpgid = static_cast<uint32_t>(f.stat.tpgid);
  b.pbi_nice = static_cast<int32_t>(f.stat.nice);
  const uint64_t since_boot_ns = ticksToNs(f.stat.starttime_ticks, f.clk_tck);
  b.pbi_start_tvsec = f.boot_time_s + since_boot_ns / 1'000'000'000u;
  b.pbi_start_tvusec = (since_boot_ns % 1'000'000'000u) / 1000u;
  return b;
}

rusage_info_v3 makeRusage(const ProcFacts& f) {
  rusage_info_v3 r{};
  const CpuSplit cpu = splitCpuTime(f.cpu_total_ns, f.stat.utime_ticks, f.stat.stime_ticks);
  r.ri_user_time = cpu.user_ns;
  r.ri_system_time = cpu.system_ns;
  r.ri_pkg_idle_wkups = f.idle_wakeups;
  r.ri_pageins = f.stat.majflt;
  r.ri_resident_size = f.statm.resident_pages * f.page_bytes;
  r.ri_phys_footprint = r.ri_resident_size;
  r.ri_proc_start_abstime = ticksToNs(f.stat.starttime_ticks, f.clk_tck);
  r.ri_child_user_time = ticksToNs(f.stat.cutime_ticks, f.clk_tck);
  r.ri_child_system_time = ticksToNs(f.stat.cstime_ticks, f.clk_tck);
  r.ri_diskio_bytesread = f.io.read_bytes;
  r.ri_diskio_byteswritten = f.io.write_bytes;
  r.ri_billed_system_time = cpu.system_ns;
  return r;
}

ProcTaskReader::ProcTaskReader(SysRoot root) : m_root(std::move(root)) {}

std::string ProcTaskReader::procPath(pid_t pid, std::string_view leaf) const {
  std::string relative = std::to_string(pid);
  if (!leaf.empty()) {
    relative += '/';
    relative += leaf;
  }
  return m_root.proc(relative);
}

std::optional<ProcPidStat> ProcTaskReader::readStat(pid_t pid) const {
  auto text = SysRoot::readRecordAt(AT_FDCWD, procPath(pid, "stat").c_str());
  return text ? parseProcPidStat(*text) : std::nullopt;
}

std::optional<ProcStatus> ProcTaskReader::readStatus(pid_t pid) const {
  auto text = SysRoot::readRecordAt(AT_FDCWD, procPath(pid, "status").c_str());
  return text ? parseProcStatus(*text) : std::nullopt;
}

uint64_t ProcTaskReader::bootTime() const {
  // The boot time never changes, and /proc/stat is long on machines with many CPUs: read it once.
  uint64_t known = m_boot_time_s.load(std::memory_order_relaxed);
  if (known) return known;
  auto text = m_root.readProc("stat");
  known = text ? parseBootTime(*text).value_or(0) : 0;
  m_boot_time_s.store(known, std::memory_order_relaxed);
  return known;
}

std::string ProcTaskReader::exeName(pid_t pid) const {
  auto target = readLink(procPath(pid, "exe"));
  return target ? baseName(*target) : std::string();
}

std::optional<ProcFacts> ProcTaskReader::gather(pid_t pid, int extras, int* error, KnownProcFiles known) const {
  if (error) *error = ESRCH;
  if (pid <= 0) return std::nullopt;
  if (known.stat && known.stat->pid != pid) known = {};
  // Every file is read relative to the process's own directory, opened once: the path is resolved
  // once per record, and should the pid be recycled meanwhile the reads fail instead of mixing two
  // processes' files. A basic record whose stat the caller read needs statm alone: one file needs
  // no directory of its own (a "taskinfo" round trip is mostly these system calls).
  const bool statm_only = extras == kBasic && known.stat;
  const UniqueFd dir(statm_only ? -1 : ::open(procPath(pid, "").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!dir && !statm_only) return std::nullopt;
  const auto read = [&](const char* leaf) {
    return statm_only ? SysRoot::readRecordAt(AT_FDCWD, procPath(pid, leaf).c_str())
                      : SysRoot::readRecordAt(dir.get(), leaf);
  };
  ProcFacts f;
  // The owner ids and context switches of status come with the fuller records.
  const bool need_status = extras & (kBsd | kWakeups);
  std::optional<ProcPidStat> stat;
  if (known.stat) {
    stat = *known.stat;
  } else if (auto text = read("stat")) {
    stat = parseProcPidStat(*text);
  }
  std::optional<ProcStatus> status = ProcStatus{};
  if (need_status && known.status) {
    status = *known.status;
  } else if (need_status) {
    auto text = read("status");
    status = text ? parseProcStatus(*text) : std::nullopt;
  }
  if (!stat || !status) return std::nullopt;
  if (error) *error = 0;
  f.stat = std::move(*stat);
  f.status = std::move(*status);
  static const long clk_tck = ::sysconf(_SC_CLK_TCK);
  static const auto page_bytes = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  f.clk_tck = clk_tck;
  f.page_bytes = page_bytes;
  // The resident size of stat is the kernel's per-CPU approximation, low by up to a few hundred
  // kB; statm sums the per-CPU counters exactly (as ps and psutil show it). stat's stands in only
  // when statm cannot be read.
  auto statm_text = read("statm");
  auto statm = statm_text ? parseProcStatm(*statm_text) : std::nullopt;
  f.statm = statm ? *statm : ProcStatm{f.stat.vsize_bytes / page_bytes, f.stat.rss_pages};
  f.cpu_total_ns = ticksToNs(f.stat.utime_ticks + f.stat.stime_ticks, f.clk_tck);
  timespec ts{};
  // The process CPU clock is exact to the nanosecond and includes exited threads; it only describes
  // the live system, so fixture trees keep the tick counts.
  if (liveProc() && ::clock_gettime(processCpuClockId(pid), &ts) == 0) {
    f.cpu_total_ns = static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(ts.tv_nsec);
  }
  if (extras & kBsd) {
    f.boot_time_s = bootTime();
    auto target = readLinkAt(dir.get(), "exe");
    f.exe_name = target ? baseName(*target) : std::string();
    f.open_files = openFiles(pid, dir.get());
  }
  if (extras & kIo) {
    auto text = read("io");
    if (auto io = text ? parseProcIo(*text) : std::nullopt) f.io = *io;
  }
  if (extras & kWakeups) f.idle_wakeups = idleWakeups(pid, f.status);
  return f;
}

bool ProcTaskReader::liveProc() const { return m_root.procRoot() == "/proc"; }

uint64_t ProcTaskReader::idleWakeups(pid_t pid, const ProcStatus& status) const {
  // /proc/PID/status counts the main thread only; with no other thread that is the whole process,
  // and the per-thread walk below (a directory listing and a file per thread) can be skipped.
  if (status.threads == 1) return status.voluntary_ctxt_switches;
  uint64_t sum = 0;
  for (const std::string& tid : SysRoot::listDir(procPath(pid, "task"))) {
    auto text = SysRoot::readRecordAt(AT_FDCWD, procPath(pid, "task/" + tid + "/status").c_str());
    if (auto s = text ? parseProcStatus(*text) : std::nullopt) sum += s->voluntary_ctxt_switches;
  }
  return sum;
}

uint32_t ProcTaskReader::openFiles(pid_t pid, int proc_dir_fd) const {
  // Since Linux 6.2 the size of /proc/PID/fd is its number of open descriptors: one stat instead of
  // reading the directory. Older kernels say 0 there; fixture trees are always listed.
  struct stat st{};
  if (liveProc() && ::fstatat(proc_dir_fd, "fd", &st, 0) == 0 && st.st_size > 0) return static_cast<uint32_t>(st.st_size);
  return static_cast<uint32_t>(SysRoot::listDir(procPath(pid, "fd")).size());
}

std::optional<proc_taskinfo> ProcTaskReader::taskInfo(pid_t pid, int* error, KnownProcFiles known) const {
  auto f = gather(pid, kBasic, error, known);
  if (!f) return std::nullopt;
  return makeTaskInfo(*f);
}

std::optional<proc_taskallinfo> ProcTaskReader::taskAllInfo(pid_t pid, int* error, KnownProcFiles known) const {
  auto f = gather(pid, kBsd, error, known);
  if (!f) return std::nullopt;
  return proc_taskallinfo{makeBsdInfo(*f), makeTaskInfo(*f)};
}

std::optional<rusage_info_v3> ProcTaskReader::rusage(pid_t pid, int* error, KnownProcFiles known) const {
  auto f = gather(pid, kWakeups | kIo, error, known);
  if (!f) return std::nullopt;
  return makeRusage(*f);
}

std::optional<ProcessRecord> ProcTaskReader::record(pid_t pid, int* error, KnownProcFiles known) const {
  auto f = gather(pid, kBsd | kWakeups | kIo, error, known);
  if (!f) return std::nullopt;
  return ProcessRecord{{makeBsdInfo(*f), makeTaskInfo(*f)}, makeRusage(*f),
                       f->exe_name.empty() ? f->stat.comm : f->exe_name, Timeval::nowMicroseconds()};
}

std::optional<std::map<int, std::string>> ProcTaskReader::pidFiles(pid_t pid, int* error) const {
  const std::string dir = procPath(pid, "fd");
  if (::access(dir.c_str(), R_OK | X_OK) != 0) {
    if (error) *error = errno == ENOENT ? ESRCH : errno;
    return std::nullopt;
  }
  std::map<int, std::string> files;
  for (const std::string& name : SysRoot::listDir(dir)) {
    auto number = parseInt64(name);
    auto target = readLink(dir + "/" + name);
    if (number && *number >= 0 && *number <= INT_MAX && target) files[static_cast<int>(*number)] = *target;
  }
  return files;
}

std::optional<std::string> ProcTaskReader::pidName(pid_t pid) const {
  if (pid <= 0) return std::nullopt;
  std::string name = exeName(pid);
  if (!name.empty()) return name;
  auto comm = SysRoot::readFile(procPath(pid, "comm"));
  if (!comm) return std::nullopt;
  return std::string(trim(*comm));
}

}  // namespace pelmora
