#include "helper/frequency_sampler.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include "helper/cpu_control.h"
#include "support/child_process.h"
#include "support/pidfd.h"
#include "support/text.h"

namespace pelmora {
namespace {

#ifndef SCHED_DEADLINE
constexpr int SCHED_DEADLINE = 6;  // not yet in every libc's headers
#endif

constexpr double kKhzPerMhz = 1000.0;
constexpr int64_t kNanosecondsPerMillisecond = 1000000;
constexpr int64_t kNanosecondsPerSecond = 1000000000;

std::string cpuDir(int cpu) { return "devices/system/cpu/cpu" + std::to_string(cpu); }

void sleepFor_ms(int64_t interval_ms) {
  const int64_t total_ns = interval_ms * kNanosecondsPerMillisecond;
  timespec remaining{static_cast<time_t>(total_ns / kNanosecondsPerSecond),
                     static_cast<long>(total_ns % kNanosecondsPerSecond)};
  while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &remaining, &remaining) == EINTR) {
  }
}

// The child inherits the daemon's handlers (SIGTERM there stops the daemon through a pipe the child
// shares) and its blocked mask (the CLI blocks SIGINT and SIGTERM): both go back to the defaults.
void resetSignals() {
  for (int sig = 1; sig < NSIG; ++sig) {
    if (sig != SIGKILL && sig != SIGSTOP) ::signal(sig, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Everything but the output pipe and the standard descriptors: the child must not keep the daemon's
// sockets or another request's pipe open (that reader would then never see end of file).
void closeAllExcept(int keep_fd) {
  if (keep_fd > 3) ::close_range(3, static_cast<unsigned>(keep_fd - 1), 0);
  ::close_range(static_cast<unsigned>(keep_fd + 1), ~0U, 0);
}

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::write(fd, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text.remove_prefix(static_cast<size_t>(n));
  }
}

class DeviceMsrReader : public MsrReader {
 public:
  std::optional<uint64_t> read(int cpu, uint32_t msr) override {
    const std::string path = "/dev/cpu/" + std::to_string(cpu) + "/msr";
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    uint64_t value = 0;
    if (::pread(fd.get(), &value, sizeof value, static_cast<off_t>(msr)) != static_cast<ssize_t>(sizeof value))
      return std::nullopt;
    return value;
  }
};

}  // namespace

std::optional<double> aperfMperfMhz(const MsrCounters& before, const MsrCounters& after, double base_mhz) {
  if (!(base_mhz > 0)) return std::nullopt;
  if (after.aperf <= before.aperf || after.mperf <= before.mperf) return std::nullopt;
  const double d_aperf = static_cast<double>(after.aperf - before.aperf);
  const double d_mperf = static_cast<double>(after.mperf - before.mperf);
  return base_mhz * d_aperf / d_mperf;
}

std::optional<double> khzTextToMhz(std::string_view text) {
  const auto khz = parseInt64(trim(text));
  if (!khz || *khz <= 0) return std::nullopt;
  return static_cast<double>(*khz) / kKhzPerMhz;
}

std::map<int, double> parseCpuinfoMhz(std::string_view text) {
  std::map<int, double> out;
  int current = -1;
  for (std::string_view line : split(text, '\n', false)) {
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view key = trim(line.substr(0, colon));
    const std::string_view value = trim(line.substr(colon + 1));
    if (key == "processor") {
      const auto n = parseInt64(value);
      current = n && *n >= 0 && *n <= INT32_MAX ? static_cast<int>(*n) : -1;
    } else if (key == "cpu MHz" && current >= 0) {
      const auto mhz = parseDouble(value);
      if (mhz && std::isfinite(*mhz) && *mhz > 0) out[current] = *mhz;
    }
  }
  return out;
}

std::string formatFrequencyLines(const std::vector<CpuFrequency>& frequencies) {
  std::string out;
  for (const CpuFrequency& f : frequencies) {
    const long long mhz = std::isfinite(f.mhz) && f.mhz > 0 ? std::llround(f.mhz) : 0;
    out += "CPU " + std::to_string(f.cpu) + " frequency: " + std::to_string(mhz) + " MHz\n";
  }
  return out;
}

std::shared_ptr<MsrReader> MsrReader::device() { return std::make_shared<DeviceMsrReader>(); }

// --- the measurement ---------------------------------------------------------------------------

struct FrequencySampler::Probe {
  int cpu = 0;
  bool online = false;
  std::optional<double> base_mhz;
  std::optional<MsrCounters> before;
};

FrequencySampler::FrequencySampler(SysRoot root, std::shared_ptr<MsrReader> msr)
    : m_root(std::move(root)), m_msr(std::move(msr)) {}

std::optional<double> FrequencySampler::baseMhz(int cpu) const {
  for (const char* name : {"base_frequency", "cpuinfo_max_freq"}) {
    if (auto text = m_root.readSys(cpuDir(cpu) + "/cpufreq/" + name))
      if (auto mhz = khzTextToMhz(*text)) return mhz;
  }
  return std::nullopt;
}

std::optional<double> FrequencySampler::cpufreqMhz(int cpu) const {
  auto text = m_root.readSys(cpuDir(cpu) + "/cpufreq/scaling_cur_freq");
  return text ? khzTextToMhz(*text) : std::nullopt;
}

std::optional<MsrCounters> FrequencySampler::readMsr(int cpu) const {
  if (!m_msr) return std::nullopt;
  const auto mperf = m_msr->read(cpu, kMsrMperf);
  const auto aperf = mperf ? m_msr->read(cpu, kMsrAperf) : std::nullopt;
  if (!aperf) return std::nullopt;
  return MsrCounters{*aperf, *mperf};
}

std::vector<FrequencySampler::Probe> FrequencySampler::probes() const {
  std::vector<Probe> out;
  for (const CpuTopologyEntry& entry : CpuControl(m_root).readTopology()) {
    Probe p{entry.cpu, entry.online, std::nullopt, std::nullopt};
    if (p.online) {
      p.base_mhz = baseMhz(p.cpu);
      if (p.base_mhz) p.before = readMsr(p.cpu);
    }
    out.push_back(p);
  }
  return out;
}

std::string FrequencySampler::measure(int64_t interval_ms) const {
  std::vector<Probe> list = probes();
  sleepFor_ms(interval_ms);
  const auto cpuinfo = parseCpuinfoMhz(m_root.readProc("cpuinfo").value_or(""));
  std::vector<CpuFrequency> out;
  bool any = false;
  for (const Probe& p : list) {
    std::optional<double> mhz;
    if (p.online && p.before) {
      if (auto after = readMsr(p.cpu)) mhz = aperfMperfMhz(*p.before, *after, *p.base_mhz);
    }
    if (p.online && !mhz) mhz = cpufreqMhz(p.cpu);
    if (p.online && !mhz) {
      if (auto it = cpuinfo.find(p.cpu); it != cpuinfo.end()) mhz = it->second;
    }
    any = any || mhz.has_value();
    out.push_back({p.cpu, mhz.value_or(0)});
  }
  return any ? formatFrequencyLines(out) : std::string();
}

// --- the child ---------------------------------------------------------------------------------

// Runs in the forked child of a threaded process: it touches no lock another thread could have held
// at the fork (no logging); glibc's malloc and stdio are reset for the child by fork itself. An
// allocator that is not (AddressSanitizer's) can leave the child waiting for ever on a lock held at
// the fork, and so could a hung driver read: the alarm ends the child a few seconds after its
// measurement is due, so its reader sees end of file and no stuck child outlives us.
void FrequencySampler::runChild(int output_fd, int64_t interval_ms) const {
  resetSignals();
  ::alarm(static_cast<unsigned>(interval_ms / 1000 + kChildGrace_s));
  closeAllExcept(output_fd);
  writeAll(output_fd, measure(interval_ms));
  ::_exit(0);
}

FrequencySampler::Started FrequencySampler::start(int64_t interval_ms) const {
  Started started;
  if (::sched_getscheduler(0) == SCHED_DEADLINE) {
    started.error = EPERM;
    started.error_text = "the frequency sampler cannot be started from a deadline-scheduled thread";
    return started;
  }
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    started.error = errno;
    started.error_text = std::string("pipe: ") + std::strerror(started.error);
    return started;
  }
  UniqueFd read_end(fds[0]);
  UniqueFd write_end(fds[1]);
  const pid_t pid = ::fork();
  if (pid < 0) {
    started.error = errno;
    started.error_text = std::string("fork: ") + std::strerror(started.error);
    return started;
  }
  if (pid == 0) runChild(write_end.get(), interval_ms);
  write_end.reset();
  // Opened before the reaper starts, so the pid cannot have been recycled yet.
  started.pidfd = pidfdOpen(pid);
  // No thread to spare: wait here; the output fits the pipe, so the child does not block.
  if (!reapInBackground(pid)) reapNow(pid);
  started.pid = pid;
  started.output = std::move(read_end);
  return started;
}

}  // namespace pelmora
