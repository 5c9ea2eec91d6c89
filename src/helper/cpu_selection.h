#pragma once
// Which processors stay enabled for a wanted count: pure functions over a topology, so every rule
// can be checked without touching /sys.
#include <vector>

namespace pelmora {

struct CpuTopologyEntry {
  int cpu = 0;
  // (package, die, core) names the physical core; -1 when the kernel did not say (an offline CPU
  // whose topology was never seen): such a CPU counts as a core of its own.
  int package = -1;
  int die = -1;
  int core = -1;
  bool hotpluggable = true;  // has an `online` file; one without is always running
  bool online = true;
};

struct CpuCounts {
  int logical_present = 0;
  int physical_present = 0;
  int logical_online = 0;
  int physical_online = 0;
};

CpuCounts countCpus(const std::vector<CpuTopologyEntry>& cpus);

// The CPUs to keep online, ascending. With prefer_physical one thread of every core comes first,
// then the siblings; without it the lowest numbers come first. Without hyper every sibling beyond
// the first thread of its core stays off. CPUs that cannot be switched off are always in the
// result and count towards `count`; the result is never empty while any CPU is present.
std::vector<int> chooseOnlineCpus(const std::vector<CpuTopologyEntry>& cpus, int count, bool hyper,
                                  bool prefer_physical);

}  // namespace pelmora
