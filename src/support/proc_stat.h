#pragma once
// The tick counters of /proc/stat: the whole-machine "cpu" line and one "cpuN" line per online
// processor. Counters are in USER_HZ ticks (sysconf(_SC_CLK_TCK)), cumulative since boot. An offline
// processor has no line at all, so callers must not assume the lines are dense. Pure parsing: the
// caller reads the file (through SysRoot) and hands the text in.
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>

namespace pelmora {
// One cpu line. Fields the kernel did not print (older kernels stop after fewer columns) read 0.
// Note the kernel already counts guest time inside user (and guest_nice inside nice).
struct cpu_ticks {
  uint64_t user = 0;
  uint64_t nice = 0;
  uint64_t system = 0;
  uint64_t idle = 0;
  uint64_t iowait = 0;
  uint64_t irq = 0;
  uint64_t softirq = 0;
  uint64_t steal = 0;
  uint64_t guest = 0;
  uint64_t guest_nice = 0;
  bool operator==(const cpu_ticks&) const = default;
};

// Processor time in the three buckets every reader shows: user with nice, system with interrupts,
// idle with I/O wait. Steal is time the hypervisor gave to someone else and guest is already inside
// user, so neither is added. In the unit of the counters it was made from.
struct cpu_buckets {
  uint64_t user = 0;
  uint64_t system = 0;
  uint64_t idle = 0;
  uint64_t total() const { return user + system + idle; }
};
cpu_buckets bucketTicks(const cpu_ticks& ticks);
// Nanoseconds per USER_HZ tick (sysconf(_SC_CLK_TCK)); 0 when the C library cannot say.
uint64_t nanosecondsPerTick();

struct ProcStat {
  std::optional<cpu_ticks> total;  // the "cpu" line
  std::map<int, cpu_ticks> cpus;   // "cpuN" lines by processor number
  std::optional<uint64_t> btime;   // boot time, seconds since the epoch

  // None when the text holds no cpu line at all or a cpu line is malformed (fewer than the four
  // classic columns, or a column that is not a number).
  static std::optional<ProcStat> parse(std::string_view text);
};

}  // namespace pelmora
