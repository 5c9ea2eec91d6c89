#pragma once
// The processor time of a whole process (every thread, exited ones included) from the kernel's
// per-process CPU clock. The clock id is made once per process (clock_getcpuclockid); each reading
// is then one clock_gettime system call, with no /proc text to read or parse. Linux lets anyone
// read any process's CPU clock, as it lets anyone read /proc/PID/stat.
#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <optional>

namespace pelmora {

class ProcessCpuClock {
 public:
  // None when there is no such process.
  static std::optional<ProcessCpuClock> of(pid_t pid);
  // Microseconds; none once the process is gone.
  std::optional<int64_t> read_us() const;

 private:
  explicit ProcessCpuClock(clockid_t clock) : m_clock(clock) {}
  clockid_t m_clock;
};

}  // namespace pelmora
