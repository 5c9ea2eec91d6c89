#pragma once
// Per-processor busy and idle time from /proc/stat. The processor count is the number of present
// CPUs (/sys/devices/system/cpu/present); a present but offline CPU has no line in /proc/stat and
// gets an all-zero sample, so the list keeps one entry per present processor across hotplug.
#include <cstdint>
#include <vector>

#include "sampling/sample_records.h"
#include "support/proc_stat.h"
#include "support/sys_root.h"

namespace pelmora {

struct CpuCollector {
  // Converts ticks to the sample unit: time = ticks * numer / denom.
  struct Timebase {
    uint64_t numer = 1;
    uint64_t denom = 1;
  };
  // USER_HZ ticks to nanoseconds: numer = 1e9 / CLK_TCK, denom = 1.
  static Timebase hostTimebase();

  // The buckets of bucketTicks, scaled. Products are unsigned 64-bit and truncate; a zero denom
  // gives 0.
  static cpu_sample_t sampleFromTicks(const cpu_ticks& ticks, Timebase timebase);
  // One sample per present processor, in the order given; processors without a line read zero.
  static std::vector<cpu_sample_t> samples(const std::vector<int>& present, const ProcStat& stat,
                                           Timebase timebase);
  // The present processors; when sysfs does not say, the processors that have a line in stat.
  static std::vector<int> presentCpus(const SysRoot& root, const ProcStat* stat = nullptr);
  // Empty when /proc/stat cannot be read or parsed.
  static std::vector<cpu_sample_t> read(const SysRoot& root, Timebase timebase);
};

}  // namespace pelmora
