#include "process_control/process_cpu_clock.h"

namespace pelmora {

std::optional<ProcessCpuClock> ProcessCpuClock::of(pid_t pid) {
  clockid_t clock;
  if (pid <= 0 || ::clock_getcpuclockid(pid, &clock) != 0) return std::nullopt;
  return ProcessCpuClock(clock);
}

std::optional<int64_t> ProcessCpuClock::read_us() const {
  timespec ts{};
  if (::clock_gettime(m_clock, &ts) != 0) return std::nullopt;
  return static_cast<int64_t>(ts.tv_sec) * 1'000'000 + ts.tv_nsec / 1000;
}

}  // namespace pelmora
