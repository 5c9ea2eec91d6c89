#pragma once
// Reads and switches the processors under /sys/devices/system/cpu. Runs as root in the daemon.
// The topology of a CPU is remembered once seen, because the kernel removes it while the CPU is
// offline and the choice of which CPUs stay on depends on it.
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "helper/cpu_selection.h"
#include "support/mutex.h"
#include "support/sys_root.h"

namespace pelmora {

class CpuControl {
 public:
  explicit CpuControl(SysRoot root);

  // Every present CPU, ascending.
  std::vector<CpuTopologyEntry> readTopology();
  CpuCounts counts() { return countCpus(readTopology()); }
  // None when the CPU is not present. A CPU without an `online` file is running.
  std::optional<bool> isRunning(int cpu);
  // "OK", or the error text after every change made so far has been undone.
  std::string setCpuCount(int count, bool hyper, bool prefer_physical);

 private:
  struct Write {
    std::string relative;  // below the sys root
    std::string old_value;
  };
  std::vector<int> presentCpus();
  std::vector<CpuTopologyEntry> readTopologyLocked();
  std::string writeAll(const std::vector<std::pair<std::string, std::string>>& writes, std::vector<Write>& done);
  void rollback(std::vector<Write>& done);

  SysRoot m_root;
  Mutex m_mutex;  // one change at a time; guards m_known_cores
  std::map<int, std::tuple<int, int, int>> m_known_cores;
};

// Writes a sysfs attribute (no symlinks are followed). 0 or the errno value.
int writeSysAttribute(const std::string& path, const std::string& value);

}  // namespace pelmora
