#pragma once
// The frequency sampler behind the "powermetrics" request. RUNS AS ROOT in the helper daemon (and
// with the user's own rights when the application serves requests in-process, where the MSR device
// cannot be opened and the cpufreq and /proc/cpuinfo readings are used instead).
//
// A request starts a child that measures every present processor over the requested interval,
// writes one line "CPU N frequency: F MHz" per processor to a pipe and exits; the caller gets the
// child's pid and the pipe's read end. Offline processors, and processors no source can measure,
// read 0 MHz so that line i is always the i-th present processor (the reader maps lines to
// processors by position). A machine where no processor can be measured writes nothing.
//
// Sources, per processor, best first:
//   1. APERF/MPERF through /dev/cpu/N/msr, averaged over the interval: both count only while the
//      processor runs (C0), MPERF at the base clock and APERF at the actual one, so
//      base x dAPERF / dMPERF is the mean running frequency. The base comes from cpufreq
//      base_frequency, else cpuinfo_max_freq. Loading the msr driver is not our business.
//   2. cpufreq scaling_cur_freq (kHz), read at the end of the interval.
//   3. /proc/cpuinfo "cpu MHz", read at the end of the interval.
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/sys_root.h"
#include "support/unique_fd.h"

namespace pelmora {

// Architectural MSR numbers (Intel SDM vol. 4; AMD implements the same pair).
constexpr uint32_t kMsrMperf = 0xE7;  // ticks at the base clock while in C0
constexpr uint32_t kMsrAperf = 0xE8;  // ticks at the actual clock while in C0

struct MsrCounters {
  uint64_t aperf = 0;
  uint64_t mperf = 0;
};

// Mean running frequency between two readings: base_mhz x dAPERF / dMPERF. None when either
// counter did not advance (the processor never ran, or both readings are the same), when either
// went backwards (readings taken in the wrong order, or a counter reset by a hotplug), or when the
// base is unknown.
std::optional<double> aperfMperfMhz(const MsrCounters& before, const MsrCounters& after, double base_mhz);

// A cpufreq attribute in kHz ("2400000\n") as MHz; none when it is not a positive integer.
std::optional<double> khzTextToMhz(std::string_view text);

// "cpu MHz" of every "processor" block of /proc/cpuinfo, keyed by the processor's number. Blocks
// without the key (most arm64 kernels) are absent.
std::map<int, double> parseCpuinfoMhz(std::string_view text);

// One line per processor: "CPU <number> frequency: <whole MHz> MHz\n".
struct CpuFrequency {
  int cpu = 0;
  double mhz = 0;
};
std::string formatFrequencyLines(const std::vector<CpuFrequency>& frequencies);

// Reads model-specific registers. The real one reads /dev/cpu/N/msr; tests substitute a fake.
class MsrReader {
 public:
  virtual ~MsrReader() = default;
  virtual std::optional<uint64_t> read(int cpu, uint32_t msr) = 0;
  // /dev/cpu/N/msr (the register number is the file offset); none without the driver or the rights.
  static std::shared_ptr<MsrReader> device();
};

class FrequencySampler {
 public:
  static constexpr int64_t kMinInterval_ms = 1;
  static constexpr int64_t kMaxInterval_ms = 10000;
  // How long after its interval a child that has not finished is ended (SIGALRM).
  static constexpr int64_t kChildGrace_s = 5;

  explicit FrequencySampler(SysRoot root, std::shared_ptr<MsrReader> msr = MsrReader::device());

  // Measures over interval_ms on the calling thread (it sleeps that long) and returns the lines;
  // empty when no processor could be measured.
  std::string measure(int64_t interval_ms) const;

  struct Started {
    pid_t pid = -1;
    UniqueFd output;    // read end of the child's pipe; end of file once the child is done
    UniqueFd pidfd;     // the child, opened before anyone could reap it
    int error = 0;      // errno value when the child could not be started
    std::string error_text;
  };
  // Forks the child that runs measure() and writes its lines to the pipe. A thread of our own waits
  // for exactly that child, so it never lingers as a zombie and no other child's status is taken.
  // Refuses from a SCHED_DEADLINE thread, which the kernel does not let fork.
  Started start(int64_t interval_ms) const;

 private:
  struct Probe;
  std::vector<Probe> probes() const;
  std::optional<double> baseMhz(int cpu) const;
  std::optional<double> cpufreqMhz(int cpu) const;
  std::optional<MsrCounters> readMsr(int cpu) const;
  [[noreturn]] void runChild(int output_fd, int64_t interval_ms) const;

  SysRoot m_root;
  std::shared_ptr<MsrReader> m_msr;
};

}  // namespace pelmora
